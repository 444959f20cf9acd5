// The control page in a real browser: headless Chromium connects a unit and
// moves it with clicks, sees the position change without a reload, shows a
// bad setting's message, and leaves screenshots at two widths in the
// artefact folder. Skipped where Chromium is absent.
#include <cmath>
#include <thread>

#include "alpaca_fixture.h"
#include "chromium_driver.h"

namespace alpaca::test {
namespace {

// Waits (bounded) until the simulated unit satisfies `done`.
template <typename Done>
bool simulatorReaches(nkrsim::UnitId unit, Done done)
{
    for (int i = 0; i < 200; ++i) {
        if (done(nkrsim::state(unit))) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::string text(const std::string& selector)
{
    return "(document.querySelector('" + selector + "')?.textContent ?? '')";
}

TEST_F(AlpacaTest, ControlPageMovesTheUnitAndShowsLiveValues)
{
#ifndef NKR_CHROMIUM
    GTEST_SKIP() << "chromium is not installed";
#else
    if (!std::filesystem::exists(NKR_CHROMIUM)) GTEST_SKIP() << "chromium is not installed";
    Chromium browser;
    ASSERT_TRUE(browser.start(NKR_CHROMIUM, dir_ / "profile"));
    ASSERT_TRUE(browser.open("http://127.0.0.1:" + std::to_string(port_) + "/", 1000, 1400));
    EXPECT_EQ(browser.eval("location.pathname"), "/control") << "/ leads to the control page";

    // Both units listed; nothing read from a unit that is not connected.
    const std::string unit0 = "#focuser-0 ";
    ASSERT_TRUE(browser.waitFor(text(unit0 + "[data-f=state]") + " === 'not connected'"));
    EXPECT_EQ(browser.eval(text("#focuser-1 [data-f=serial]")), "serial 414C504143413032");
    EXPECT_EQ(browser.eval(text(unit0 + "[data-f=position]")), "—");
    browser.eval("window.samePage = true");

    // Connect, then a move by click: the unit moves, the page follows by itself.
    browser.eval("document.querySelector('" + unit0 + "[data-a=connect]').click()");
    ASSERT_TRUE(browser.waitFor(text(unit0 + "[data-f=position]") + " === '30000 steps'"));
    browser.eval("{ const f = document.querySelector('" + unit0 + "[data-form=moveto]');"
                 "f.elements.namedItem('position').value = '31000'; f.querySelector('button').click(); }");
    ASSERT_TRUE(simulatorReaches(unitA_, [](const nkrsim::UnitState& s) { return s.target == 31000; }));
    ASSERT_TRUE(runUntilStopped(0));
    EXPECT_EQ(nkrsim::state(unitA_).position, 31000);
    EXPECT_TRUE(browser.waitFor(text(unit0 + "[data-f=position]") + " === '31000 steps'"))
        << browser.eval(text(unit0 + "[data-f=position]"));
    EXPECT_TRUE(browser.waitFor(text(unit0 + "[data-f=motion]") + " === 'stopped'"));
    EXPECT_EQ(browser.eval("window.samePage === true"), true) << "the page was not reloaded";

    // A nudge button moves by steps.
    browser.eval("document.querySelector('" + unit0 + "[data-nudge=\"-100\"]').click()");
    ASSERT_TRUE(simulatorReaches(unitA_, [](const nkrsim::UnitState& s) { return s.target == 30900; }));
    ASSERT_TRUE(runUntilStopped(0));

    // A bad maximum is explained beside its field and nothing is changed.
    ASSERT_TRUE(browser.waitFor("document.querySelector('" + unit0 + "[name=maxstep]').value === '60000'"));
    browser.eval("{ const s = document.querySelector('" + unit0 + "details.settings'); s.open = true;"
                 "const g = s.querySelector('form'); g.elements.namedItem('maxstep').value = '-5';"
                 "g.elements.namedItem('backlash').value = '77'; g.querySelector('button[type=submit]').click(); }");
    EXPECT_TRUE(browser.waitFor(text(unit0 + "[data-error=maxstep]") + ".startsWith('Maximum step must be a whole number from 1 to 600000 steps')"))
        << browser.eval(text(unit0 + "[data-error=maxstep]"));
    EXPECT_TRUE(browser.waitFor(text(unit0 + "[data-role=settings-message]") + ".startsWith('Nothing was changed')"));
    EXPECT_EQ(nkrsim::state(unitA_).backlash, 0);
    EXPECT_EQ(get(device(0, "maxstep"))["Value"], 60000);

    // An hour of samples for the plot: the tube cools, the focus follows.
    const auto now = std::chrono::system_clock::now();
    for (int i = 0; i <= 720; i += 2) {
        const double t = i / 720.0;
        nkrsim::setTemperature(unitA_, 14.0 - 5.5 * t + 0.3 * std::sin(i / 40.0));
        nkrsim::update(unitA_, [t](nkrsim::UnitState& s) { s.position = 30900 + static_cast<int>(880 * t) / 20 * 20; });
        server_->recordSamples(now - std::chrono::seconds(3600 - i * 5));
    }
    browser.eval("pollHistory()");
    EXPECT_TRUE(browser.waitFor("document.querySelectorAll('" + unit0 + "path.line').length === 2"));
    EXPECT_TRUE(browser.waitFor(text(unit0 + "[data-f=position]") + " === '31780 steps'"));

#ifdef NKR_ARTEFACT_DIR
    std::filesystem::create_directories(NKR_ARTEFACT_DIR);
    EXPECT_TRUE(browser.screenshot(std::string(NKR_ARTEFACT_DIR) + "/alpaca-control-1000.png"));
    ASSERT_TRUE(browser.resize(420, 2000));
    EXPECT_TRUE(browser.waitFor("document.querySelector('" + unit0 + "svg').viewBox.baseVal.width <= 420"));
    EXPECT_TRUE(browser.screenshot(std::string(NKR_ARTEFACT_DIR) + "/alpaca-control-420.png"));
#endif
#endif
}

}  // namespace
}  // namespace alpaca::test
