// Bluetooth units: attached by name, beginning of a name or address; one link
// however often they are attached; a dropped link comes back by itself.
#include <cctype>

#include "alpaca_fixture.h"

namespace alpaca::test {
namespace {

nkrsim::UnitSpec bluetoothUnit(const std::string& name, char serialEnd)
{
    nkrsim::UnitSpec spec;
    spec.fwMajor = 3;
    spec.fwMinor = 8;
    spec.fwBuild = 2;
    spec.modelLetter = 'E';
    spec.typeText = "NKR Pro";
    spec.usb = false;
    spec.ble = true;
    spec.bleName = name;
    spec.serial = {'B', 'L', 'U', 'E', 'U', 'N', 'I', static_cast<uint8_t>(serialEnd)};
    spec.position = 12000;
    return spec;
}

class AlpacaBluetoothTest : public AlpacaTest {
protected:
    void SetUp() override
    {
        AlpacaTest::SetUp();
        dome_ = nkrsim::addUnit(bluetoothUnit("NKR Dome_A1B2", '1'));
        guide_ = nkrsim::addUnit(bluetoothUnit("NKR Guide_A1B3", '2'));
    }
    nkrsim::UnitId dome_ = -1, guide_ = -1;
};

TEST_F(AlpacaBluetoothTest, AttachedByNameBeginningOrAddressOnceOnly)
{
    AttachResult byStart = registry_->attachBle("NKR Dome");
    ASSERT_TRUE(byStart.ok()) << byStart.message;
    EXPECT_NE(byStart.message.find("NKR Dome_A1B2"), std::string::npos) << byStart.message;
    EXPECT_EQ(nkrsim::bleConnections(dome_), 1);
    // The same unit again, by its full name or its address in lower case:
    // the same device number and still one link.
    ASSERT_TRUE(registry_->attachBle("NKR Dome_A1B2").ok());
    std::string address = nkrsim::bleAddress(dome_);
    for (char& c : address) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    ASSERT_TRUE(registry_->attachBle(address).ok());
    EXPECT_EQ(nkrsim::bleConnections(dome_), 1);
    EXPECT_EQ(registry_->all().size(), 3u);
    json position = get(device(2, "position"));
    EXPECT_EQ(position["ErrorNumber"], 0) << position.dump();
    EXPECT_EQ(position["Value"], 12000);
    json names = get("/management/v1/configureddevices");
    EXPECT_EQ(names["Value"].size(), 3u);
    // A beginning shared by two units, and a name nobody has, say what was seen.
    AttachResult shared = registry_->attachBle("NKR ");
    EXPECT_FALSE(shared.ok());
    EXPECT_NE(shared.message.find("several"), std::string::npos) << shared.message;
    AttachResult missing = registry_->attachBle("Telescope");
    EXPECT_FALSE(missing.ok());
    EXPECT_NE(missing.message.find("NKR Guide_A1B3"), std::string::npos) << missing.message;
    EXPECT_FALSE(registry_->attachBle("").ok());
    nkrsim::bleRefuseConnect(guide_, true);
    AttachResult refused = registry_->attachBle("NKR Guide_A1B3");
    EXPECT_FALSE(refused.ok());
    EXPECT_EQ(registry_->all().size(), 3u) << "a unit that could not be reached gets no number";
}

TEST_F(AlpacaBluetoothTest, DroppedLinkAnswersNotConnectedThenComesBack)
{
    ASSERT_TRUE(registry_->attachBle("NKR Dome_A1B2").ok());
    ASSERT_EQ(get(device(2, "position"))["Value"], 12000);
    // The link drops: the request that meets it says NotConnected, the next
    // one makes the link again.
    nkrsim::bleDropConnection(dome_);
    nkrsim::bleFlushCallbacks();
    json dropped = get(device(2, "position"));
    EXPECT_EQ(dropped["ErrorNumber"], 0x407) << dropped.dump();
    json back = get(device(2, "position"));
    EXPECT_EQ(back["ErrorNumber"], 0) << back.dump();
    EXPECT_EQ(back["Value"], 12000);
    EXPECT_EQ(nkrsim::bleConnections(dome_), 1);
    // Out of reach: one attempt, then requests are answered at once with
    // NotConnected until the retry period ends, while an explicit connect
    // tries again straight away.
    nkrsim::bleDropConnection(dome_);
    nkrsim::bleFlushCallbacks();
    nkrsim::bleRefuseConnect(dome_, true);
    EXPECT_EQ(get(device(2, "position"))["ErrorNumber"], 0x407);
    EXPECT_EQ(get(device(2, "position"))["ErrorNumber"], 0x407);
    EXPECT_EQ(get(device(2, "connected"))["Value"], false);
    nkrsim::bleRefuseConnect(dome_, false);
    EXPECT_EQ(get(device(2, "position"))["ErrorNumber"], 0x407) << "still inside the retry period";
    connect(2);
    EXPECT_EQ(get(device(2, "position"))["Value"], 12000);
    EXPECT_EQ(nkrsim::bleConnections(dome_), 1);
}

TEST_F(AlpacaBluetoothTest, ControlPageAttachesAndExplainsAFailure)
{
    httplib::Client browser("127.0.0.1", port_);
    auto attached = browser.Post("/control/v1/bluetooth", "name=NKR+Guide", "application/x-www-form-urlencoded");
    ASSERT_TRUE(attached);
    json answer = json::parse(attached->body, nullptr, false);
    EXPECT_EQ(answer["ok"], true) << attached->body;
    EXPECT_EQ(answer.value("message", "").rfind("Attached: focuser 2 is Bluetooth unit NKR Guide_A1B3 [", 0), 0u)
        << attached->body;
    auto failed = browser.Post("/control/v1/bluetooth", "name=Telescope", "application/x-www-form-urlencoded");
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->status, 409);
    EXPECT_NE(failed->body.find("Cannot attach Telescope: no focuser answers to"), std::string::npos) << failed->body;
}

}  // namespace
}  // namespace alpaca::test
