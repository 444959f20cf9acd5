// Conformance of the device API: values, types, key casing, transaction ids
// and every error path of the focuser members.
#include "alpaca_fixture.h"

namespace alpaca::test {
namespace {

void expectEnvelope(const json& answer)
{
    for (const char* key : {"ClientTransactionID", "ServerTransactionID", "ErrorNumber", "ErrorMessage"})
        ASSERT_TRUE(answer.contains(key)) << key << " missing in " << answer.dump();
    EXPECT_TRUE(answer["ClientTransactionID"].is_number_unsigned() && answer["ServerTransactionID"].is_number_unsigned() &&
                answer["ErrorNumber"].is_number_integer() && answer["ErrorMessage"].is_string())
        << answer.dump();
}

TEST_F(AlpacaTest, MembersThatNeedNoConnectionAnswerWithTheirTypes)
{
    for (const auto& [member, value] : {std::pair<const char*, json>{"absolute", true}, {"interfaceversion", 4},
                                        {"connecting", false}, {"tempcomp", false}, {"tempcompavailable", true},
                                        {"connected", false}}) {
        json answer = get(device(0, member));
        ASSERT_EQ(lastStatus_, 200) << member;
        expectEnvelope(answer);
        EXPECT_EQ(answer["ErrorNumber"], 0) << member;
        EXPECT_EQ(answer["Value"], value) << member;
    }
    for (const char* member : {"description", "driverinfo", "driverversion", "name"}) {
        json value = get(device(1, member))["Value"];
        EXPECT_TRUE(value.is_string() && !value.get<std::string>().empty()) << member;
    }
    json actions = get(device(0, "supportedactions"))["Value"];
    ASSERT_TRUE(actions.is_array());
    for (const char* name : {"Backlash", "Reverse", "Beep", "MaxForce", "Led", "Alias"})
        EXPECT_NE(std::find(actions.begin(), actions.end(), name), actions.end()) << name;
}

TEST_F(AlpacaTest, TransactionIdsAreEchoedOrZeroAndTheServerCountsUp)
{
    EXPECT_EQ(get(device(0, "absolute") + "?ClientTransactionID=77")["ClientTransactionID"], 77);
    EXPECT_EQ(get(device(0, "absolute") + "?clienttransactionid=78")["ClientTransactionID"], 78);
    EXPECT_EQ(get(device(0, "absolute") + "?CLIENTTRANSACTIONID=4294967295")["ClientTransactionID"], 4294967295u);
    for (const char* bad : {"", "abc", "-1", "4294967296", "12x", "1.5"})
        EXPECT_EQ(get(device(0, "absolute") + "?ClientTransactionID=" + bad)["ClientTransactionID"], 0) << bad;
    EXPECT_EQ(get(device(0, "absolute"))["ClientTransactionID"], 0);
    EXPECT_EQ(put(device(0, "connected"), "Connected=true&ClientTransactionID=9")["ClientTransactionID"], 9);
    uint32_t first = get(device(0, "absolute"))["ServerTransactionID"];
    uint32_t second = get(device(1, "absolute"))["ServerTransactionID"];
    uint32_t third = get("/management/apiversions")["ServerTransactionID"];
    EXPECT_TRUE(first >= 1u && second == first + 1 && third == second + 1) << first << " " << second << " " << third;
}

TEST_F(AlpacaTest, UnitMembersAnswerNotConnectedUntilConnected)
{
    for (const char* member : {"position", "ismoving", "maxstep", "maxincrement", "temperature", "devicestate"}) {
        json answer = get(device(0, member));
        EXPECT_EQ(answer["ErrorNumber"], 0x407) << member;
        EXPECT_FALSE(answer.contains("Value")) << member;
        EXPECT_FALSE(answer["ErrorMessage"].get<std::string>().empty());
    }
    EXPECT_EQ(put(device(0, "move"), "Position=100")["ErrorNumber"], 0x407);
    EXPECT_EQ(put(device(0, "halt"), "")["ErrorNumber"], 0x407);
    connect(0);
    EXPECT_EQ(get(device(0, "connected"))["Value"], true);
    EXPECT_EQ(get(device(0, "position"))["Value"], 30000);
    EXPECT_EQ(get(device(0, "maxstep"))["Value"], 60000);
    EXPECT_EQ(get(device(0, "maxincrement"))["Value"], 60000);
    EXPECT_NEAR(get(device(0, "temperature"))["Value"].get<double>(), 25.0, 0.01);
    EXPECT_EQ(get(device(0, "ismoving"))["Value"], false);
    // The other unit stays disconnected.
    EXPECT_EQ(get(device(1, "position"))["ErrorNumber"], 0x407);
}

TEST_F(AlpacaTest, RequestsThatCannotBeUnderstoodGetHttp400WithAReason)
{
    struct Case {
        bool isPut;
        std::string path, form;
    };
    const Case cases[] = {
        {false, "/api/v1/focuser/7/position", ""},        // unknown device number
        {false, "/api/v1/focuser/x/position", ""},        // unparsable device number
        {false, "/api/v1/camera/0/position", ""},         // other device type
        {false, "/api/v1/focuser/0/nosuchmember", ""},    // unknown member
        {true, "/api/v1/focuser/0/move", ""},             // missing parameter
        {true, "/api/v1/focuser/0/move", "Position=abc"}, // unparsable parameter
        {true, "/api/v1/focuser/0/move", "Position=99999999999"},
        {true, "/api/v1/focuser/0/move", "position=100"}, // PUT names keep their case
        {true, "/api/v1/focuser/0/connected", "Connected=maybe"},
        {true, "/api/v1/focuser/0/tempcomp", ""},
        {true, "/api/v1/focuser/0/action", "Action=Beep"},
        {true, "/api/v1/focuser/0/commandblind", "Command=x"},
    };
    for (const Case& c : cases) {
        auto res = c.isPut ? client_->Put(c.path, c.form, "application/x-www-form-urlencoded") : client_->Get(c.path);
        ASSERT_TRUE(res) << c.path;
        EXPECT_EQ(res->status, 400) << c.path << " " << c.form;
        EXPECT_FALSE(res->body.empty()) << c.path;
        EXPECT_NE(res->get_header_value("Content-Type").find("text/plain"), std::string::npos);
    }
}

TEST_F(AlpacaTest, BodilessPutsAnswerAndASecondServerCannotShareThePort)
{
    const std::string halt = raw("PUT /api/v1/focuser/0/halt HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(halt.rfind("HTTP/1.1 200", 0), 0u) << halt;
    const std::string move = raw("PUT /api/v1/focuser/0/move HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(move.rfind("HTTP/1.1 400", 0), 0u) << move;
    EXPECT_NE(move.find("missing parameter Position"), std::string::npos) << move;
    AlpacaServer second(*registry_);
    EXPECT_EQ(second.start("127.0.0.1", port_), -1);
    EXPECT_EQ(second.startError(), "port " + std::to_string(port_) + " is in use (is another nkr-alpaca running?)");
}

TEST_F(AlpacaTest, OversizedBodiesAreRefusedAndTheServerKeepsAnswering)
{
    std::string huge = "Position=1&Pad=" + std::string(64 * 1024, 'x');
    auto res = client_->Put(device(0, "move"), huge, "application/x-www-form-urlencoded");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 413);
    EXPECT_EQ(get(device(0, "absolute"))["Value"], true);
}

TEST_F(AlpacaTest, DeviceLevelRefusalsCarryAscomErrorNumbers)
{
    connect(0);
    json outOfRange = put(device(0, "move"), "Position=60001");
    EXPECT_EQ(outOfRange["ErrorNumber"], 0x401);
    EXPECT_NE(outOfRange["ErrorMessage"].get<std::string>().find("0..60000"), std::string::npos);
    EXPECT_EQ(put(device(0, "move"), "Position=-1")["ErrorNumber"], 0x401);
    EXPECT_EQ(get(device(0, "position"))["Value"], 30000);  // nothing moved
    EXPECT_EQ(get(device(0, "stepsize"))["ErrorNumber"], 0x400);  // until the user sets one
    EXPECT_EQ(put(device(0, "commandstring"), "Command=x&Raw=false")["ErrorNumber"], 0x400);
    EXPECT_EQ(put(device(0, "action"), "Action=Launch&Parameters=")["ErrorNumber"], 0x40C);
    EXPECT_EQ(put(device(0, "action"), "Action=Backlash&Parameters=lots")["ErrorNumber"], 0x401);
}

TEST_F(AlpacaTest, ActionsReadAndWriteSettingsThroughTheSdk)
{
    connect(0);
    json set = put(device(0, "action"), "Action=Backlash&Parameters=120");
    EXPECT_EQ(set["ErrorNumber"], 0) << set.dump();
    EXPECT_EQ(set["Value"], "120");
    EXPECT_EQ(put(device(0, "action"), "Action=backlash&Parameters=")["Value"], "120");
    EXPECT_EQ(nkrsim::state(unitA_).backlash, 120);
    EXPECT_EQ(put(device(0, "action"), "Action=Reverse&Parameters=true")["Value"], "true");
    EXPECT_TRUE(nkrsim::state(unitA_).reverse);
    EXPECT_EQ(put(device(0, "action"), "Action=Beep&Parameters=on")["Value"], "true");
    // The unit keeps 8 characters: exactly 8 are taken whole, 9 refused.
    EXPECT_EQ(put(device(0, "action"), "Action=Alias&Parameters=scope1ab")["Value"], "scope1ab");
    EXPECT_EQ(put(device(0, "action"), "Action=Alias&Parameters=scope1abc")["ErrorNumber"], 0x401);
    EXPECT_EQ(put(device(0, "action"), "Action=Alias&Parameters=")["Value"], "scope1ab");
}

TEST_F(AlpacaTest, DeviceStateListsNamedValues)
{
    connect(1);
    json state = get(device(1, "devicestate"));
    ASSERT_EQ(state["ErrorNumber"], 0) << state.dump();
    std::map<std::string, json> values;
    for (auto& item : state["Value"]) values[item["Name"]] = item["Value"];
    EXPECT_EQ(values["IsMoving"], false);
    EXPECT_EQ(values["Position"], 30000);
    EXPECT_TRUE(values["Temperature"].is_number());
    ASSERT_TRUE(values["TimeStamp"].is_string());
    EXPECT_EQ(values["TimeStamp"].get<std::string>().back(), 'Z');
}

TEST_F(AlpacaTest, ParametersThatAreNotTextAre400NeverAnInternalError)
{
    connect(0);
    for (const char* action : {"Backlash", "TempCoefficient", "GotoPosition", "Positions", "Launch"}) {
        put(device(0, "action"), std::string("Action=") + action + "&Parameters=%FF");
        EXPECT_EQ(lastStatus_, 400) << action << ": " << lastBody_;
        EXPECT_NE(lastBody_.find("Parameters is not UTF-8"), std::string::npos) << lastBody_;
    }
    for (const char* form : {"Position=%C0%80", "Position=12%", "Position=%zz", "%FF=1"}) {
        put(device(0, "move"), form);
        EXPECT_EQ(lastStatus_, 400) << form << ": " << lastBody_;
    }
    get(device(0, "position") + "?ClientTransactionID=%ED%A0%80");  // a lone surrogate
    EXPECT_EQ(lastStatus_, 400) << lastBody_;
    // Text that is UTF-8 but not a value of the setting is the device's InvalidValue.
    EXPECT_EQ(put(device(0, "action"), "Action=Backlash&Parameters=%C3%A9")["ErrorNumber"], 0x401);
    EXPECT_EQ(put(device(0, "action"), "Action=TempCoefficient&Parameters=1e999")["ErrorNumber"], 0x401);
    EXPECT_EQ(get(device(0, "position"))["Value"], 30000);
}

// The README's examples of named positions, sent as `curl -d` sends them
// (the '=' inside Parameters not encoded).
TEST_F(AlpacaTest, NamedPositionActionsDoWhatTheReadmeSays)
{
    connect(0);
    auto action = [&](const std::string& parameters) {
        json answer = put(device(0, "action"), "Action=" + parameters);
        EXPECT_EQ(answer["ErrorNumber"], 0) << parameters << ": " << answer.dump() << lastBody_;
        return answer["Value"];
    };
    EXPECT_EQ(json::parse(action("Positions&Parameters=Focus=31000").get<std::string>()), json({{"Focus", 31000}}));
    EXPECT_EQ(json::parse(action("Positions&Parameters=Park").get<std::string>()),
              json({{"Focus", 31000}, {"Park", 30000}}));  // NAME alone: the current position
    EXPECT_EQ(action("GotoPosition&Parameters=Focus"), "31000");
    EXPECT_TRUE(runUntilStopped(0));
    EXPECT_EQ(get(device(0, "position"))["Value"], 31000);
    EXPECT_EQ(json::parse(action("Positions&Parameters=-Park").get<std::string>()), json({{"Focus", 31000}}));
    EXPECT_EQ(put(device(0, "action"), "Action=Positions&Parameters=Focus=lots")["ErrorNumber"], 0x401);
}

}  // namespace
}  // namespace alpaca::test
