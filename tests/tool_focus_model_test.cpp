// The nkr tool's focus-model commands as a new user meets them: fitting the
// coefficient from a CSV of focus runs however its header is written,
// switching compensation off while another program holds the unit, and the
// library's saved record with who may change it.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "tool_live.h"
#include "tool_support.h"

namespace nkrtest {
namespace {

// Twelve focus runs, -12 steps per degree, under the given header.
void writeRuns(const std::string& path, const std::string& header, bool twice = false)
{
    std::ofstream csv(path);
    for (int copy = 0; copy < (twice ? 2 : 1); ++copy) {
        csv << header << "\n";
        for (int i = 0; i < 6; ++i) {
            const int run = copy * 6 + i;
            csv << 20 - run << "," << 30000 + 12 * run << "\n";
        }
    }
}

// The column where the value after a field's dots starts, on screen.
size_t valueColumn(const std::string& text, const std::string& label)
{
    const size_t at = text.find("  " + label + " ");
    if (at == std::string::npos) return 0;
    const size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end - at);
    size_t columns = 0, k = 0;
    for (bool dots = false; k < line.size(); ++k) {
        if (line[k] == '.') dots = true;
        if (dots && line[k] != '.' && line[k] != ' ') break;
        if ((static_cast<unsigned char>(line[k]) & 0xC0) != 0x80) ++columns;
    }
    return columns;
}

// The text after a field's dots.
std::string fieldValue(const std::string& text, const std::string& label)
{
    const size_t at = text.find("  " + label + " .");
    if (at == std::string::npos) return "";
    const size_t value = text.find_first_not_of('.', text.find(" .", at + 2) + 1);
    return text.substr(value + 1, text.find('\n', value) - value - 1);
}

TEST_F(ToolTest, ToolFitReadsTheRunsHoweverTheHeaderIsWritten)
{
    for (const char* header : {"Temperature_C,Position", "TEMPERATURE (\u00B0C),position [steps]", "temp,pos"}) {
        writeRuns(home_ + "/runs.csv", header);
        ToolRun fit = run("--json tempcomp 1 fit runs.csv");
        ASSERT_EQ(fit.status, 0) << header << ": " << fit.err;
        EXPECT_NEAR(std::stod(jsonRaw(fit.out, "coefficient").value_or("0")), -12.0, 0.01) << header;
    }
    writeRuns(home_ + "/runs.csv", "temperature_f,position");
    ToolRun fahrenheit = run("tempcomp 1 fit runs.csv");
    EXPECT_EQ(fahrenheit.status, 2);
    EXPECT_NE(fahrenheit.err.find("no header line naming the columns temperature_c"), std::string::npos)
        << fahrenheit.err;

    // Two nights' files joined: the second header is no unreadable line; a broken row is one.
    writeRuns(home_ + "/runs.csv", "temperature_c,position", true);
    std::ofstream(home_ + "/runs.csv", std::ios::app) << "8,lost\n";
    ToolRun joined = runTool("LC_ALL=C.UTF-8", "--simulate tempcomp 1 fit runs.csv");
    ASSERT_EQ(joined.status, 0) << joined.err;
    EXPECT_EQ(fieldValue(joined.out, "runs used"), "12") << joined.out;
    EXPECT_EQ(fieldValue(joined.out, "lines unreadable"), "1 (their values are not numbers)") << joined.out;
    // Every value starts in the same column, the R² row's too.
    EXPECT_EQ(valueColumn(joined.out, "R\u00B2"), valueColumn(joined.out, "coefficient")) << joined.out;
    EXPECT_NE(valueColumn(joined.out, "coefficient"), 0u);

    ToolRun folder = run("tempcomp 1 fit '" + home_ + "'");
    EXPECT_EQ(folder.status, 2);
    EXPECT_NE(folder.err.find("is a folder"), std::string::npos) << folder.err;
    EXPECT_EQ(folder.err.find("is empty"), std::string::npos) << folder.err;
}

TEST_F(ToolTest, ToolTempCompOffIsTheHoldersAndFollowLeavesItAsItWas)
{
#ifdef NKR_TOOL_PATH
    ASSERT_EQ(run("set 1 temp-coefficient=-5").status, 0);
    LiveTool follower(home_, NKR_TOOL_PATH, "--simulate --json tempcomp 1 --follow");
    ASSERT_TRUE(follower.waitForLine("compensation on")) << "the follower took the unit";
    ToolRun held = run("--json tempcomp 1 status");
    EXPECT_NE(held.out.find("\"compensated_by\":\"nkr tempcomp --follow"), std::string::npos) << held.out;

    // Switching compensation off drives the unit: refused to any program but
    // the holder, naming it, and nothing changes.
    ToolRun off = run("tempcomp 1 off");
    EXPECT_EQ(off.status, 1) << off.err;
    EXPECT_NE(off.err.find("is held by nkr tempcomp"), std::string::npos) << off.err;
    ToolRun still = run("--json tempcomp 1 status");
    EXPECT_NE(still.out.find("\"compensated_by\":\"nkr tempcomp --follow"), std::string::npos) << still.out;
    EXPECT_EQ(jsonRaw(still.out, "enabled"), "true") << still.out;
    follower.sendSignal(SIGINT);
    follower.finish();
    // The follower switched compensation on for as long as it ran, no longer.
    ToolRun after = run("--json tempcomp 1 status");
    EXPECT_EQ(jsonRaw(after.out, "enabled"), "false") << after.out;
    EXPECT_EQ(jsonRaw(after.out, "compensated_by"), "null") << after.out;
#endif
}

TEST_F(ToolTest, ToolInfoShowsTheSavedRecordAndWhoMayChangeIt)
{
    auto saved = [&] {
        ToolRun info = run("--json info 1");
        EXPECT_EQ(info.status, 0) << info.err;
        return info.out.substr(std::min(info.out.size(), info.out.find("\"saved_record\"")));
    };
    ASSERT_EQ(run("move 1 +10").status, 0);  // closing saves the record
    std::string record = saved();
    const std::string folder = jsonString(record, "folder").value_or("");
    ASSERT_NE(folder.find("/.HTX"), std::string::npos) << record;
    EXPECT_EQ(jsonString(record, "file"), folder + "/NKRconfig.xml");
    EXPECT_EQ(jsonString(record, "folder_mode"), "0777") << "the library shares it on purpose";
    EXPECT_EQ(jsonString(record, "file_mode"), "0666");

    // Other accounts may change it once they can pass every folder above it
    // (here only the test's own folders need opening).
    const std::string top = std::getenv("HOME");
    ASSERT_EQ(top.rfind("/tmp/nkr-test-home-", 0), 0u) << "only the test's own folders are opened";
    for (std::string dir = folder.substr(0, folder.rfind('/')); dir.size() >= top.size(); dir = dir.substr(0, dir.rfind('/')))
        ASSERT_EQ(chmod(dir.c_str(), 0711), 0) << dir;
    EXPECT_EQ(jsonRaw(saved(), "others_may_change"), "true");

    // What the README tells an administrator: a umask does not narrow the modes...
    ASSERT_EQ(std::system(("rm -r '" + folder + "'").c_str()), 0);
    const mode_t before = umask(077);
    ToolRun masked = run("move 1 +10");
    umask(before);
    ASSERT_EQ(masked.status, 0) << masked.err;
    EXPECT_EQ(jsonString(saved(), "folder_mode"), "0777");
    // ... a folder of narrower mode is kept as it is, and keeps others out.
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
    ASSERT_EQ(run("move 1 +10").status, 0);
    record = saved();
    EXPECT_EQ(jsonString(record, "folder_mode"), "0700");
    EXPECT_EQ(jsonRaw(record, "others_may_change"), "false");
    ToolRun text = run("info 1");
    EXPECT_NE(flat(text.out).find("drwx------"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace nkrtest
