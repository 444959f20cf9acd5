// The nkr tool as a new user meets it: messages, the commands scripts need
// (get, wait, units by serial or alias), set and sync rules, the settings
// file left alone by commands that only look, ASCII output and the log.
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>

#include "log/Log.h"
#include "tool_support.h"

namespace nkrtest {
namespace {

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST_F(ToolTest, ToolCommandLineErrorsHaveOneFormAndStayShort)
{
    const std::string longNumber(300, '7');
    for (const std::string& args : {std::string("mvoe 0"), std::string("move 0 --bogus"), std::string(""),
                                    "info " + longNumber, "move 0 " + longNumber, "info 0 --x=" + longNumber}) {
        ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.err.rfind("nkr: error: ", 0), 0u) << r.err;
        EXPECT_LT(r.err.size(), 300u) << "an overlong argument is cut: " << r.err;
        EXPECT_EQ(r.err.find("Run with --help"), std::string::npos) << r.err;
    }
    EXPECT_NE(run("mvoe 0").err.find("did you mean 'move'?"), std::string::npos);
    EXPECT_NE(run("lsit").err.find("did you mean 'list'?"), std::string::npos);

    ToolRun range = run("info 999");
    EXPECT_EQ(range.status, 2);
    EXPECT_NE(range.err.find("0 to 49"), std::string::npos) << range.err;

    ToolRun stray = run("--ble 'NKR Pro_A1B2' info 0");
    EXPECT_EQ(stray.status, 2);
    EXPECT_NE(stray.err.find("--ble already names the unit"), std::string::npos) << stray.err;

    // Each says what was wrong in the user's terms, and --json still prints JSON.
    const struct {
        const char* args;
        const char* says;
    } wrong[] = {
        {"watch 1 --count -1", "--count: must be a whole number from 1 to 1000000 (got '-1')"},
        {"watch 1 --count 0", "--count: must be a whole number from 1 to 1000000 (got '0')"},
        {"wait 1 --timeout abc", "--timeout: must be a number of seconds from 0 to 86400 (got 'abc')"},
        {"info 0 1 2", "unexpected arguments '1', '2'"},
        {"--bogus", "unknown option '--bogus'"},
        {"--json list --ble 61", "must be a whole number of seconds from 0 to 60 (got '61')"},
        {"set 1 backlash=256", "backlash must be a whole number from 0 to 255 steps (got '256')"},
    };
    for (const auto& w : wrong) {
        ToolRun r = run(w.args);
        EXPECT_EQ(r.status, 2) << w.args;
        EXPECT_NE(r.err.find(w.says), std::string::npos) << w.args << ": " << r.err;
    }
    EXPECT_NE(run("--json list --ble 61").out.find("{\"error\":{\"message\":"), std::string::npos);

    ToolRun help = runTool("", "--help");
    EXPECT_NE(help.out.find("143 SIGTERM"), std::string::npos);
    for (const char* command : {"get", "wait"})
        EXPECT_NE(help.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
}

TEST_F(ToolTest, ToolGetPrintsOneBareValue)
{
    EXPECT_EQ(run("get 0 position").out, "30000\n");
    EXPECT_EQ(run("get 1 firmware").out, "3.8.2\n");
    EXPECT_EQ(run("get 1 moving").out, "false\n");
    EXPECT_EQ(run("get 0 max_step").out, run("get 0 max-step").out);
    EXPECT_EQ(run("get 1 alias").out, "\n") << "no alias: an empty line";
    ToolRun json = run("--json get 1 alias");
    EXPECT_EQ(json.out, "{\"id\":1,\"field\":\"alias\",\"value\":null}\n");

    ToolRun unknown = run("get 0 colour");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("position"), std::string::npos) << "lists the fields: " << unknown.err;
    ToolRun led = run("get 0 led");
    EXPECT_EQ(led.status, 1);
    EXPECT_NE(led.err.find("NKR_ERROR_NOT_SUPPORTED"), std::string::npos) << led.err;
}

TEST_F(ToolTest, ToolUnitsByAliasOrSerial)
{
    std::string serial0 = run("get 0 serial").out, serial1 = run("get 1 serial").out;
    ASSERT_EQ(serial1.size(), 17u);
    serial1.pop_back();
    ToolRun unknown = run("get NOSUCHUNIT position");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("no focuser answers to 'NOSUCHUNIT' (seen: USB 0"), std::string::npos) << unknown.err;
    if (serial0 == serial1 + "\n") {
        // Identical serials are answered as ambiguous, never by a guess.
        ToolRun both = run("get " + serial1 + " position");
        EXPECT_EQ(both.status, 2);
        EXPECT_NE(both.err.find("several USB focusers"), std::string::npos) << both.err;
        GTEST_SKIP() << "these simulated units share one serial number";
    }
    ASSERT_EQ(run("sync " + serial1 + " 12345").status, 0);
    EXPECT_EQ(run("get 1 position").out, "12345\n");
    ASSERT_EQ(run("set 1 alias=Main").status, 0);
    ToolRun byAlias = run("get Main firmware");
    if (byAlias.status != 0) GTEST_SKIP() << "the simulated world does not keep the alias between commands";
    EXPECT_EQ(byAlias.out, "3.8.2\n");
}

TEST_F(ToolTest, ToolWaitBlocksUntilTheMotorStandsStill)
{
    ToolRun still = run("--json wait 1 --timeout 5");
    ASSERT_EQ(still.status, 0) << still.err;
    EXPECT_EQ(jsonString(still.out, "event"), "still");
    EXPECT_EQ(jsonInt(still.out, "position"), 30000);

    ASSERT_EQ(run("move 1 +20000 --no-wait").status, 0);
    if (run("get 1 moving").out != "true\n")
        GTEST_SKIP() << "the simulated world does not keep a move between commands";
    // The time-out is in seconds: the wait holds on for the whole second given (a bound that cannot come early).
    const auto start = std::chrono::steady_clock::now();
    ToolRun timedOut = run("wait 1 --timeout 1");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(timedOut.status, 1);
    EXPECT_NE(timedOut.err.find("still moving"), std::string::npos) << timedOut.err;
    ASSERT_EQ(run("stop 1").status, 0);
    EXPECT_EQ(run("wait 1 --timeout 5").status, 0);
}

TEST_F(ToolTest, ToolMoveWithoutWaitIsCarriedToItsEndFinalApproachIncluded)
{
    ASSERT_EQ(run("set 1 approach=out approach-overshoot=300").status, 0);
    ToolRun started = run("move 1 29000 --no-wait");
    ASSERT_EQ(started.status, 0) << started.err;
    // The process carrying the move holds the unit until the move has ended.
    ToolRun refused = run("move 1 100");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("is held by nkr move"), std::string::npos) << refused.err;
    // wait sees the whole move, not the stand between the two legs.
    ToolRun waited = run("--json wait 1 --timeout 30");
    ASSERT_EQ(waited.status, 0) << waited.err;
    EXPECT_EQ(jsonInt(waited.out, "position"), 29000) << "the second leg, from below, was run";
}

TEST_F(ToolTest, ToolSetAppliesNothingUnlessEveryKeyFits)
{
    // The older unit has no LED: the backlash before it is not applied either.
    ToolRun led = run("set 0 backlash=30 led=on");
    EXPECT_EQ(led.status, 1);
    EXPECT_NE(led.err.find("nothing was changed"), std::string::npos) << led.err;
    EXPECT_EQ(run("get 0 backlash").out, "0\n");
    EXPECT_EQ(run("set 0 backlash=255").status, 0) << "the largest backlash";

    // Newer firmware ignores the speed: warned, not sent, and not "changed".
    ToolRun speed = run("set 1 speed=1500");
    EXPECT_EQ(speed.status, 0) << speed.err;
    EXPECT_NE(speed.err.find("speed not changed"), std::string::npos) << speed.err;
    EXPECT_EQ(speed.out.find("changed."), std::string::npos) << speed.out;
    EXPECT_NE(speed.out.find("Nothing was changed"), std::string::npos) << speed.out;

    // A maximum beyond the step range is refused, and nothing else is changed.
    ToolRun beyond = run("set 0 backlash=30 max-step=70000");
    EXPECT_EQ(beyond.status, 2);
    EXPECT_NE(beyond.err.find("from 1..60000, the unit's step range (got 70000)"), std::string::npos) << beyond.err;
}

TEST_F(ToolTest, ToolSyncTakesRelativeSteps)
{
    ToolRun up = run("--json sync 1 +100");
    ASSERT_EQ(up.status, 0) << up.err;
    EXPECT_EQ(jsonInt(up.out, "position"), 30100);
    EXPECT_EQ(jsonInt(run("--json sync 1 -500").out, "position"), 29600);
    EXPECT_EQ(run("sync 0 -30001").status, 2);
    EXPECT_EQ(run("sync 0 +abc").status, 2);
}

TEST_F(ToolTest, ToolCommandsThatOnlyLookLeaveTheSettingsFileAsItWas)
{
    ASSERT_EQ(run("sync 1 12345").status, 0);
    const std::string file = home_ + "/state/nkr-sim/.HTX/NKRconfig.xml";
    const std::string saved = readFile(file);
    ASSERT_NE(saved.find("Position"), std::string::npos) << saved;
    for (const char* look : {"list", "info 0", "info 1", "get 0 position", "watch 0 --count 1", "wait 0"}) {
        ASSERT_EQ(run(look).status, 0) << look;
        EXPECT_EQ(readFile(file), saved) << look << " changed the saved position or settings";
    }
    EXPECT_EQ(run("get 1 position").out, "12345\n");
}

TEST_F(ToolTest, ToolJsonKeysAreSnakeCaseAndEventsCarryIdAndTime)
{
    std::vector<std::string> docs;
    for (const char* args : {"--json list", "--json info 1", "--json set 1 max-step=50000 backlash=3",
                             "--json move 1 +300", "--json watch 1 --count 2 --interval 50", "--json get 1 max-step",
                             "--json demo"}) {
        ToolRun r = run(args);
        ASSERT_EQ(r.status, 0) << args << r.err;
        for (const std::string& line : r.lines()) docs.push_back(line);
    }
    for (const std::string& doc : docs) {
        // A key is a quoted text followed by a colon; none has a dash.
        for (size_t at = doc.find("\":"); at != std::string::npos; at = doc.find("\":", at + 1)) {
            size_t open = doc.rfind('"', at - 1);
            std::string key = doc.substr(open + 1, at - open - 1);
            EXPECT_EQ(key.find('-'), std::string::npos) << key << " in " << doc;
        }
        EXPECT_EQ(doc.find("\"\""), std::string::npos) << "a missing value is null, never \"\": " << doc;
        if (doc.find("\"event\"") != std::string::npos) {
            EXPECT_TRUE(jsonInt(doc, "id").has_value()) << doc;
            EXPECT_EQ(jsonString(doc, "timestamp").value_or("").size(), 24u) << doc;
        }
    }
}

TEST_F(ToolTest, ToolPlainAsciiOutsideUtf8AndWithinTheTerminalWidth)
{
    ToolRun ascii = runTool("LC_ALL=C LANG=C", "--simulate info 1");
    ASSERT_EQ(ascii.status, 0) << ascii.err;
    for (unsigned char c : ascii.out) EXPECT_LT(c, 0x80) << ascii.out;
    EXPECT_NE(ascii.out.find(" C\n"), std::string::npos);
    ToolRun utf8 = runTool("LC_ALL=C.UTF-8", "--simulate info 1");
    EXPECT_NE(utf8.out.find("\u00B0C"), std::string::npos);
    EXPECT_NE(runTool("LC_ALL=C", "--simulate info " + std::string(60, '7')).err.find("..."), std::string::npos);

    for (const char* args : {"demo", "info 1", "list", "--help", "move --help", "firmware --help"}) {
        ToolRun r = run(args);
        std::istringstream lines(r.out);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 80u) << args << ": " << line;
    }
}

TEST_F(ToolTest, ToolProgressBarFitsA40ColumnTerminal)
{
#ifdef NKR_TOOL_PATH
    if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "no script(1) for a pseudo-terminal";
    // script(1) gives the tool a terminal of 40 columns, as a narrow window would.
    std::string command = "cd '" + home_ + "' && env -u NKR_SIM_ACTIVE -u NKR_SIM_STATE HOME='" + home_ + "' XDG_STATE_HOME='" +
                          home_ + "/state' XDG_RUNTIME_DIR='" + home_ + "/run' LC_ALL=C.UTF-8 timeout -k 5 60 script -qec \"stty cols 40; '" NKR_TOOL_PATH
                          "' --simulate move 1 +1000\" /dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
    pclose(pipe);
    ASSERT_NE(out.find("Reached position 31000"), std::string::npos) << out;
    ASSERT_NE(out.find("100%"), std::string::npos) << "the bar was drawn: " << out;
    // What shows on screen: no escape sequences, a UTF-8 character is one column.
    std::string line;
    auto check = [&] {
        size_t columns = 0;
        for (unsigned char c : line) columns += (c & 0xC0) != 0x80 ? 1 : 0;
        EXPECT_LE(columns, 40u) << line;
        // A shorter text rather than a number cut in two.
        if (line.find("\u2192") != std::string::npos) EXPECT_NE(line.find("31000"), std::string::npos) << line;
        line.clear();
    };
    for (size_t k = 0; k < out.size(); ++k) {
        char c = out[k];
        if (c == '\033') {
            while (k < out.size() && !std::isalpha(static_cast<unsigned char>(out[k]))) ++k;
        } else if (c == '\r' || c == '\n') {
            check();
        } else {
            line += c;
        }
    }
    check();
#endif
}

TEST_F(ToolTest, ToolShowsWhereTheDiagnosticLogIsAndItsLinesLive)
{
    ToolRun where = runTool("", "--log-dir");
    EXPECT_EQ(where.status, 0);
    EXPECT_EQ(where.out.rfind("/tmp/htx/log/nkr_sdk/\n", 0), 0u) << where.out;

    // Lines of earlier processes in the file of this second (and the next
    // ones), which the tool's run will share.
    const std::string earlier = "earlier-process-" + std::to_string(getpid());
    for (time_t t = time(nullptr), end = t + 3; t < end; ++t) {
        int fd = -1;
        if (nkrlog::claimLogFile(nkrlog::kLogDir, t, &fd).empty()) continue;
        const std::string line = "[2026-01-01 00:00:00.000] [info] [t:1 f] " + earlier + "\n";
        EXPECT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        close(fd);
    }
    ToolRun verbose = run("-v get 0 position");
    EXPECT_EQ(verbose.status, 0) << verbose.err;
    EXPECT_EQ(verbose.err.find(earlier), std::string::npos) << "only this run's lines: " << verbose.err;
    EXPECT_EQ(verbose.out, "30000\n");
    EXPECT_NE(verbose.err.find("nkr: log: "), std::string::npos) << verbose.err;
    // Other processes of this second write the same file meanwhile; their
    // lines may show too, so look for what is meant: a pointer (eight hex
    // digits and more, or "(nil)"), never a byte such as "0x5A".
    EXPECT_FALSE(std::regex_search(verbose.err, std::regex("0x[0-9A-Fa-f]{8}|\\(nil\\)")))
        << "addresses stay in the log file: " << verbose.err;
    EXPECT_NE(verbose.err.find("NKROpen"), std::string::npos) << verbose.err;
    EXPECT_NE(verbose.err.find("the diagnostic log of this run is /tmp/htx/log/nkr_sdk/"), std::string::npos);

    EXPECT_NE(runTool("", "--help").out.find("--shared-record"), std::string::npos);
}

TEST_F(ToolTest, ToolManPageAndCompletionComeFromTheHelp)
{
    ToolRun man = runTool("", "--help-man");
    ASSERT_EQ(man.status, 0) << man.err;
    EXPECT_EQ(man.out.rfind(".TH NKR 1", 0), 0u);
    for (const char* command : {"list", "info", "get", "wait", "firmware"})
        EXPECT_NE(man.out.find(std::string(".SS ") + command + "\n"), std::string::npos) << command;
    EXPECT_NE(man.out.find("143 SIGTERM"), std::string::npos);
    EXPECT_EQ(runTool("", "--help").out.find("--help-man"), std::string::npos) << "hidden from --help";

    ToolRun completion = runTool("", "--completion bash");
    ASSERT_EQ(completion.status, 0) << completion.err;
    const std::string script = home_ + "/nkr.bash";
    std::ofstream(script) << completion.out;
    auto complete = [&](const std::string& words, int current) {
        std::string command = "bash -c 'source " + script + "; COMP_WORDS=(" + words + "); COMP_CWORD=" +
                              std::to_string(current) + "; _nkr; echo \"${COMPREPLY[*]}\"'";
        FILE* pipe = popen(command.c_str(), "r");
        std::string out;
        char buf[512];
        for (size_t n; pipe != nullptr && (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
        if (pipe != nullptr) pclose(pipe);
        return out;
    };
    EXPECT_EQ(complete("nkr mo", 1), "move\n");
    EXPECT_EQ(complete("nkr firmware 1 img --dr", 4), "--dry-run\n");
    EXPECT_EQ(complete("nkr get 0 temper", 3), "temperature\n");
    EXPECT_EQ(runTool("", "--completion zsh").status, 2);
}

TEST(ToolReadme, ShowsTheHostExampleAsItIs)
{
#ifdef NKR_SOURCE_DIR
    std::string readme = readFile(NKR_SOURCE_DIR "/README.md");
    std::string example = readFile(NKR_SOURCE_DIR "/examples/host_example.c");
    ASSERT_FALSE(example.empty());
    EXPECT_NE(readme.find("```c\n" + example + "```"), std::string::npos)
        << "the README's C snippet differs from examples/host_example.c";
#endif
}

}  // namespace
}  // namespace nkrtest
