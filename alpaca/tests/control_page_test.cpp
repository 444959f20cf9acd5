// The control page over plain HTTP: where the old URLs lead, which browser
// requests are refused, how the settings form is checked, and the plot's ring.
#include "alpaca_fixture.h"
#include "focuser_members.h"

namespace alpaca::test {
namespace {

TEST_F(AlpacaTest, RootAndSetupUrlsLeadToTheControlPage)
{
    const struct {
        const char* path;
        const char* location;
    } cases[] = {{"/", "/control"}, {"/setup", "/control"}, {"/setup/v1/focuser/1/setup", "/control#focuser-1"}};
    for (const auto& c : cases) {
        auto res = client_->Get(c.path);
        ASSERT_TRUE(res) << c.path;
        EXPECT_EQ(res->status, 302) << c.path;
        EXPECT_EQ(res->get_header_value("Location"), c.location) << c.path;
    }
    for (const char* asset : {"/control", "/control/control.css", "/control/control.js"}) {
        auto res = client_->Get(asset);
        ASSERT_TRUE(res) << asset;
        EXPECT_EQ(res->status, 200) << asset;
        EXPECT_GT(res->body.size(), 1000u) << asset;
        // Never inside another site's frame (a clicked decoy would move the focuser).
        EXPECT_EQ(res->get_header_value("X-Frame-Options"), "DENY") << asset;
        EXPECT_NE(res->get_header_value("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos);
    }
    json state = get("/control/v1/state");
    EXPECT_EQ(state["server"]["version"], driverVersion());
    ASSERT_EQ(state["units"].size(), 2u);
    EXPECT_EQ(state["units"][0]["connected"], false);
    EXPECT_TRUE(state["units"][0]["position"].is_null());
}

TEST_F(AlpacaTest, BrowserRequestsFromOtherSitesAreRefusedAndAlpacaClientsAreNot)
{
    const std::string port = std::to_string(port_);
    const std::string here = "127.0.0.1:" + port;
    const struct {
        std::string host, origin;  // "" origin: none sent
        int status;
    } cases[] = {
        {here, "", 200},                                          // curl, scripts
        {here, "http://" + here, 200},                            // the page itself
        {"localhost:" + port, "http://localhost:" + port, 200},
        {"[::1]:" + port, "http://[::1]:" + port, 200},
        {hostName() + ":" + port, "http://" + hostName() + ":" + port, 200},
        {here, "http://evil.example", 403},                       // a form on another site
        {here, "null", 403},                                      // a sandboxed or file: page
        {here, "http://127.0.0.1:1", 403},                        // another port is another site
        {"evil.example:" + port, "http://evil.example:" + port, 403},  // DNS rebinding
        {"evil.example:" + port, "", 403},
        {"127.0.0.1:1", "", 403},
    };
    for (const auto& c : cases) {
        httplib::Headers headers{{"Host", c.host}};
        if (!c.origin.empty()) headers.emplace("Origin", c.origin);
        auto res = client_->Post("/control/v1/focuser/0/connect", headers, "", "application/x-www-form-urlencoded");
        ASSERT_TRUE(res) << c.host << " " << c.origin;
        EXPECT_EQ(res->status, c.status) << c.host << " " << c.origin << ": " << res->body;
        EXPECT_EQ(get(device(0, "connected"))["Value"], c.status == 200) << c.host << " " << c.origin;
        put(device(0, "connected"), "Connected=false");
    }
    // Reading the page's state is refused under a foreign name too.
    auto state = client_->Get("/control/v1/state", {{"Host", "evil.example:" + port}});
    ASSERT_TRUE(state);
    EXPECT_EQ(state->status, 403);
    // An Alpaca client sends no Origin; by an address it is served whatever
    // port it names (a forwarded port), by a foreign name it reads nothing
    // (a rebinding page would read the position) until --allow-host names it.
    auto forwarded = client_->Put(device(0, "connected"), {{"Host", "127.0.0.1:8080"}}, "Connected=true",
                                  "application/x-www-form-urlencoded");
    ASSERT_TRUE(forwarded);
    EXPECT_EQ(forwarded->status, 200);
    EXPECT_EQ(get(device(0, "connected"))["Value"], true);
    auto rebound = client_->Get(device(0, "position"), {{"Host", "observatory.lan:" + port}});
    ASSERT_TRUE(rebound);
    EXPECT_EQ(rebound->status, 403);
    EXPECT_NE(rebound->body.find("--allow-host"), std::string::npos) << rebound->body;
    ServerLimits named;
    named.samplingThread = false;
    named.allowedHosts = {"observatory.lan"};
    AlpacaServer allowed(*registry_, named);
    const int allowedPort = allowed.start("127.0.0.1", 0);
    ASSERT_GT(allowedPort, 0);
    httplib::Client viaName("127.0.0.1", allowedPort);
    auto served = viaName.Get(device(0, "position"), {{"Host", "observatory.lan:" + std::to_string(allowedPort)}});
    ASSERT_TRUE(served);
    EXPECT_EQ(served->status, 200);
    allowed.stop();
    // A browser's PUT from another site gets the page's checks.
    auto fromPage = client_->Put(device(0, "connected"), {{"Origin", "http://evil.example"}}, "Connected=false",
                                 "application/x-www-form-urlencoded");
    ASSERT_TRUE(fromPage);
    EXPECT_EQ(fromPage->status, 403);
    EXPECT_EQ(get(device(0, "connected"))["Value"], true);
}

TEST_F(AlpacaTest, SettingsAreAllCheckedBeforeAnyIsApplied)
{
    connect(0);
    auto post = [&](const std::string& path, const std::string& form) {
        auto res = client_->Post(path, form, "application/x-www-form-urlencoded");
        lastStatus_ = res ? res->status : -1;
        return res ? json::parse(res->body, nullptr, false) : json();
    };
    const std::string settings = "/control/v1/focuser/0/settings";
    const std::string move = "/control/v1/focuser/0/move";
    // Each bad form names its bad field, and none of its good fields is applied.
    const struct {
        std::string path, form, badField;
    } refused[] = {
        {settings, "maxstep=-5&backlash=77", "maxstep"},
        {settings, "maxstep=99999999&reverse=true", "maxstep"},
        {settings, "maxstep=0", "maxstep"},
        {settings, "backlash=256", "backlash"},
        {settings, "backlash=77&alias=TOOLONGALIAS", "alias"},
        {settings, "speed=fast", "speed"},
        {settings, "reverse=maybe", "reverse"},
        {settings, "stepsize=0&backlash=77", "stepsize"},
        {settings, "tempdeadband=-1", "tempdeadband"},
        {settings, "colour=red&backlash=77", "colour"},
        {move, "position=99999", "position"},
        {move, "steps=abc", "steps"},
        {settings, "alias=%FF", ""},
        {move, "position=%FF", ""},
    };
    for (const auto& c : refused) {
        json answer = post(c.path, c.form);
        EXPECT_EQ(lastStatus_, 400) << c.form;
        EXPECT_EQ(answer["ok"], false) << c.form;
        if (!c.badField.empty()) EXPECT_TRUE(answer["errors"][c.badField].is_string()) << c.form << ": " << answer.dump();
        else EXPECT_NE(answer["message"].get<std::string>().find("not UTF-8"), std::string::npos) << answer.dump();
    }
    // A number too large for a position is out of range, and says which.
    json far = post(move, "position=99999999999");
    EXPECT_NE(far["errors"]["position"].get<std::string>().find("from 0 to 60000 steps"), std::string::npos) << far.dump();
    EXPECT_EQ(nkrsim::state(unitA_).backlash, 0);
    EXPECT_EQ(nkrsim::state(unitA_).reverse, false);
    EXPECT_EQ(get(device(0, "ismoving"))["Value"], false);
    EXPECT_EQ(get(device(0, "maxstep"))["Value"], 60000);
    EXPECT_EQ(get(device(0, "stepsize"))["ErrorNumber"], kNotImplemented);
    json saved = post(settings, "maxstep=50000&backlash=77&reverse=true&alias=Main&stepsize=2.5");
    EXPECT_EQ(lastStatus_, 200) << saved.dump();
    EXPECT_EQ(nkrsim::state(unitA_).backlash, 77);
    EXPECT_EQ(nkrsim::state(unitA_).reverse, true);
    EXPECT_EQ(get(device(0, "maxstep"))["Value"], 50000);
    EXPECT_EQ(get(device(0, "stepsize"))["Value"], 2.5);
    const std::string readAlias = "Action=Alias&Parameters=";
    EXPECT_EQ(put(device(0, "action"), readAlias)["Value"], "Main");
    // An empty alias clears it, and says so.
    json cleared = post(settings, "alias=");
    EXPECT_NE(cleared["message"].get<std::string>().find("alias cleared"), std::string::npos) << cleared.dump();
    EXPECT_EQ(put(device(0, "action"), readAlias)["Value"], "");
    EXPECT_EQ(post("/control/v1/focuser/0/settings", "")["message"], "Nothing to save.");
}

TEST_F(AlpacaTest, PageStateTellsAGoneUnitFromOneNobodyConnected)
{
    auto units = [&] { return get("/control/v1/state")["units"]; };
    EXPECT_EQ(units()[0]["state"], "off");
    connect(0);
    json live = units()[0];
    EXPECT_EQ(live["state"], "connected");
    EXPECT_EQ(live["position"], 30000);
    nkrsim::unplug(unitA_);
    get(device(0, "position"));  // the request that meets the pulled cable
    json gone = units()[0];
    EXPECT_EQ(gone["state"], "gone") << gone.dump();
    EXPECT_EQ(gone["lastPosition"], 30000);
    EXPECT_TRUE(gone["goneSince"].is_number() && gone["lastSeen"].is_number()) << gone.dump();
    EXPECT_TRUE(gone["position"].is_null());
    EXPECT_EQ(units()[0]["goneSince"], gone["goneSince"]) << "gone since the first time it was missed";
    EXPECT_EQ(units()[1]["state"], "off");
    nkrsim::replug(unitA_);
    connect(0);
    EXPECT_EQ(units()[0]["state"], "connected");
    put(device(0, "connected"), "Connected=false");
    EXPECT_EQ(units()[0]["state"], "off") << "let go by its client: not gone";
    // The footer's discovery port: off until discovery answers.
    EXPECT_TRUE(get("/control/v1/state")["server"]["discoveryPort"].is_null());
    server_->setDiscoveryPort(18011);
    EXPECT_EQ(get("/control/v1/state")["server"]["discoveryPort"], 18011);
}

TEST_F(AlpacaTest, PlotHistoryKeepsTheLastHourOfConnectedUnits)
{
    connect(0);
    const auto start = std::chrono::system_clock::now() - std::chrono::hours(2);
    const int taken = 900;  // two hours at one sample per 8 s: more than the ring holds
    for (int i = 0; i < taken; ++i) {
        nkrsim::update(unitA_, [i](nkrsim::UnitState& s) { s.position = 20000 + i; });
        server_->recordSamples(start + std::chrono::seconds(8 * i));
    }
    json history = get("/control/v1/history");
    EXPECT_FALSE(history["units"].contains("1")) << "a unit nobody connected is not sampled";
    const json& rows = history["units"]["0"];
    ASSERT_FALSE(rows.empty());
    EXPECT_LE(rows.size(), server_->history().capacity());
    const int64_t newest = rows.back()[0], oldest = rows.front()[0];
    EXPECT_LE(newest - oldest, 3600 * 1000);
    EXPECT_GE(newest - oldest, 3590 * 1000);
    EXPECT_EQ(rows.back()[1], 20000 + taken - 1);
    EXPECT_TRUE(rows.back()[2].is_number());
}

}  // namespace
}  // namespace alpaca::test
