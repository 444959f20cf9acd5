// The setup pages in a real browser: headless Chromium submits a settings
// form, the result is read from the DOM it rendered, and a screenshot of
// /setup is kept under the build dir. Skipped where Chromium is absent.
#include <cstdio>
#include <fstream>

#include "alpaca_fixture.h"

namespace alpaca::test {
namespace {

#ifdef NKR_CHROMIUM
// Runs Chromium with the flags of a sealed, quiet headless run; returns stdout.
std::string chromium(const std::filesystem::path& profile, const std::string& args)
{
    std::string command = std::string("timeout 50 ") + NKR_CHROMIUM +
                          " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                          " --disable-background-networking --disable-component-update --disable-sync"
                          " --user-data-dir=" + profile.string() + " " + args + " 2>/dev/null";
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}
#endif

TEST_F(AlpacaTest, BrowserSubmitsTheSettingsFormAndSeesTheResult)
{
#ifndef NKR_CHROMIUM
    GTEST_SKIP() << "chromium is not installed";
#else
    if (!std::filesystem::exists(NKR_CHROMIUM)) GTEST_SKIP() << "chromium is not installed";
    connect(0);
    std::string base = "http://127.0.0.1:" + std::to_string(port_);

    // The overview lists both units with their position.
    std::string overview = chromium(dir_ / "profile1", "--dump-dom " + base + "/setup");
    EXPECT_NE(overview.find("414C504143413031"), std::string::npos) << overview;
    EXPECT_NE(overview.find("414C504143413032"), std::string::npos);
    EXPECT_NE(overview.find("30000"), std::string::npos);

    // A page of the test's own submits the server's form as a person would.
    std::filesystem::path submit = dir_ / "submit.html";
    std::ofstream(submit) << "<!DOCTYPE html><form method=\"post\" action=\"" << base
                          << "/setup/v1/focuser/0/setup\"><input name=\"backlash\" value=\"77\">"
                             "<input name=\"maxstep\" value=\"abc\"></form>"
                             "<script>document.forms[0].submit()</script>";
    std::string result = chromium(dir_ / "profile2", "--virtual-time-budget=10000 --dump-dom file://" + submit.string());
    EXPECT_NE(result.find("Backlash saved."), std::string::npos) << result;
    EXPECT_NE(result.find("Maximum step:"), std::string::npos) << result;  // the SDK's refusal is shown
    EXPECT_EQ(nkrsim::state(unitA_).backlash, 77);

#ifdef NKR_ARTEFACT_DIR
    std::filesystem::create_directories(NKR_ARTEFACT_DIR);
    std::string shot = std::string(NKR_ARTEFACT_DIR) + "/alpaca-setup.png";
    chromium(dir_ / "profile3", "--window-size=1000,600 --screenshot=" + shot + " " + base + "/setup");
    EXPECT_TRUE(std::filesystem::exists(shot));
#endif
#endif
}

}  // namespace
}  // namespace alpaca::test
