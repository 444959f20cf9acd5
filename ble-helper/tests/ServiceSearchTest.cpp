// Picking the adapter, the units and the serial service out of BlueZ's object tree.
#include <gtest/gtest.h>

#include <cstring>

#include "../Adapter.h"
#include "../DeviceLink.h"
#include "../Uuid.h"

using namespace blueshim;

namespace {

const std::string kDev = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01";
const std::string kSerial = "6e400001-b5a3-f393-e0a9-e50e24dcca9e";

Value text(const std::string& s, const char* sig = "s") { Value v; v.signature = sig; v.text = s; return v; }
Value flag(bool b) { Value v; v.signature = "b"; v.boolean = b; return v; }
Value flags(std::vector<std::string> list) { Value v; v.signature = "as"; v.texts = std::move(list); return v; }
Value number(long n, const char* sig) { Value v; v.signature = sig; v.number = n; return v; }

// A service at kDev + "/" + name.
void addService(ObjectTree& tree, const std::string& name, const std::string& uuid, bool primary = true)
{
    tree[kDev + "/" + name][kServiceIface] = {{"UUID", text(uuid)}, {"Primary", flag(primary)}, {"Device", text(kDev, "o")}};
}
// A characteristic at kDev + "/" + service + "/" + name.
void addChar(ObjectTree& tree, const std::string& service, const std::string& name, const std::string& uuid,
             std::vector<std::string> f)
{
    tree[kDev + "/" + service + "/" + name][kCharIface] = {
        {"UUID", text(uuid)}, {"Service", text(kDev + "/" + service, "o")}, {"Flags", flags(std::move(f))}};
}

}  // namespace

TEST(Uuid, SigBaseUuidsAndAddresses)
{
    for (auto [uuid, sig] : {std::pair{"00001800-0000-1000-8000-00805f9b34fb", true},
                             {"0000180F-0000-1000-8000-00805F9B34FB", true}, {kSerial.c_str(), false},
                             {"12341800-0000-1000-8000-00805f9b34fb", false}, {"", false}})
        EXPECT_EQ(isSigUuid(uuid), sig) << uuid;
    for (auto [text, value] : {std::pair{"00:00:00:00:01:02", 0x0102LL}, {"FF:FF:FF:FF:FF:FF", 0xFFFFFFFFFFFFLL},
                               {"AA:BB:cc:00:11:22", 0xAABBCC001122LL}, {"NKR Pro", 0LL}, {"AA:BB:CC:DD:EE:F", 0LL},
                               {"AA:BB:CC:DD:EE:FFF", 0LL}, {"AA-BB-CC-DD-EE-FF", 0LL}}) {
        EXPECT_EQ(isBluetoothAddress(text), value != 0) << text;
        EXPECT_EQ(addressValue(text), value) << text;
    }
}

TEST(ServiceSearch, StandardServicesAndIncompleteServicesAreSkipped)
{
    ObjectTree tree;
    // A SIG service with write and notify comes first in path order; then a vendor service that only notifies.
    addService(tree, "service0001", "0000180a-0000-1000-8000-00805f9b34fb");
    addChar(tree, "service0001", "char0002", "00002a29-0000-1000-8000-00805f9b34fb", {"read", "write", "notify"});
    addService(tree, "service0010", "11111111-2222-3333-4444-555555555555");
    addChar(tree, "service0010", "char0011", "11111111-2222-3333-4444-555555555556", {"notify"});
    // The serial service: separate write and notify characteristics.
    addService(tree, "service0020", kSerial);
    addChar(tree, "service0020", "char0021", "6e400003-b5a3-f393-e0a9-e50e24dcca9e", {"notify"});
    addChar(tree, "service0020", "char0023", "6e400002-b5a3-f393-e0a9-e50e24dcca9e", {"write-without-response", "write"});
    SerialService found;
    ASSERT_TRUE(findSerialService(tree, kDev, {}, found));
    EXPECT_EQ(found.servicePath + " " + found.writePath + " " + found.notifyPath,
              kDev + "/service0020 " + kDev + "/service0020/char0023 " + kDev + "/service0020/char0021");
    EXPECT_TRUE(found.writeWithoutResponse);
    EXPECT_EQ(found.mtu, 23u);
}

TEST(ServiceSearch, OneCharacteristicMayWriteAndIndicateAndReportsItsMtu)
{
    ObjectTree tree;
    addService(tree, "service0020", kSerial);
    addChar(tree, "service0020", "char0021", "6e400002-b5a3-f393-e0a9-e50e24dcca9e", {"write", "indicate"});
    tree[kDev + "/service0020/char0021"][kCharIface]["MTU"] = number(185, "q");
    SerialService found;
    ASSERT_TRUE(findSerialService(tree, kDev, {}, found));
    EXPECT_EQ(std::tuple(found.writePath == found.notifyPath, found.writeWithoutResponse, found.mtu), std::tuple(true, false, 185u));
    // An MTU of 3 leaves no room past the ATT header: the default stays.
    tree[kDev + "/service0020/char0021"][kCharIface]["MTU"] = number(3, "q");
    SerialService small;
    ASSERT_TRUE(findSerialService(tree, kDev, {}, small));
    EXPECT_EQ(small.mtu, 23u);
}

TEST(ServiceSearch, SecondaryServicesOtherDevicesAndOverrides)
{
    {
        ObjectTree tree;
        addService(tree, "service0020", kSerial, /*primary=*/false);
        addChar(tree, "service0020", "char0021", "x", {"write", "notify"});
        SerialService found;
        EXPECT_FALSE(findSerialService(tree, kDev, {}, found));
        addService(tree, "service0030", kSerial);
        addChar(tree, "service0030", "char0031", "x", {"write", "notify"});
        EXPECT_FALSE(findSerialService(tree, "/org/bluez/hci0/dev_00_00_00_00_00_02", {}, found));
        EXPECT_TRUE(findSerialService(tree, kDev, {}, found));
    }
    // Overrides name the service and characteristics in any case.
    ObjectTree tree;
    addService(tree, "service0001", "0000fff0-0000-1000-8000-00805f9b34fb");
    addChar(tree, "service0001", "char0002", "0000fff1-0000-1000-8000-00805f9b34fb", {"write", "notify"});
    addChar(tree, "service0001", "char0004", "0000fff2-0000-1000-8000-00805f9b34fb", {"notify"});
    addService(tree, "service0020", kSerial);
    addChar(tree, "service0020", "char0021", "y", {"write", "notify"});
    ServiceOverrides overrides;
    overrides.service = "0000fff0-0000-1000-8000-00805f9b34fb";
    overrides.notify = "0000fff2-0000-1000-8000-00805f9b34fb";
    SerialService found;
    ASSERT_TRUE(findSerialService(tree, kDev, overrides, found));
    EXPECT_EQ(found.writePath + " " + found.notifyPath, kDev + "/service0001/char0002 " + kDev + "/service0001/char0004");
    overrides.write = "0000ffff-0000-1000-8000-00805f9b34fb";  // not there
    EXPECT_FALSE(findSerialService(tree, kDev, overrides, found));
}

TEST(AdapterTree, FirstOrNamedAdapterAndOnlyItsNkrUnitsAreListed)
{
    ObjectTree tree;
    tree["/org/bluez/hci0"][kAdapterIface] = {{"Powered", flag(true)}};
    tree["/org/bluez/hci1"][kAdapterIface] = {{"Powered", flag(true)}};
    tree["/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"][kDeviceIface] = {
        {"Name", text("NKR Pro")}, {"Address", text("AA:BB:CC:DD:EE:01")}, {"RSSI", number(-60, "n")}};
    tree["/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02"][kDeviceIface] = {{"Alias", text("NKR Mini")},
                                                                    {"Address", text("AA:BB:CC:DD:EE:02")}};
    tree["/org/bluez/hci0/dev_AA_BB_CC_DD_EE_03"][kDeviceIface] = {{"Name", text("Headphones")},
                                                                    {"Address", text("AA:BB:CC:DD:EE:03")}};
    tree["/org/bluez/hci1/dev_AA_BB_CC_DD_EE_04"][kDeviceIface] = {{"Name", text("NKR Other")},
                                                                    {"Address", text("AA:BB:CC:DD:EE:04")}};
    EXPECT_EQ(findAdapter(tree, ""), "/org/bluez/hci0");
    EXPECT_EQ(findAdapter(tree, "hci1"), "/org/bluez/hci1");
    EXPECT_EQ(findAdapter(tree, "hci2"), "");
    BleScanRecord records[4];
    ASSERT_EQ(collectUnits(tree, "/org/bluez/hci0", records, 4), 2);
    EXPECT_EQ(std::string(records[0].name) + "|" + records[0].address + "|" + records[1].name, "NKR Pro|AA:BB:CC:DD:EE:01|NKR Mini");
    EXPECT_EQ(std::tuple(records[0].rssi, records[0].btAddress, records[1].rssi), std::tuple(-60, 0xAABBCCDDEE01LL, 0));
    EXPECT_EQ(collectUnits(tree, "/org/bluez/hci0", records, 1), 1) << "capacity is respected";
    EXPECT_EQ(findDevice(tree, "/org/bluez/hci0", "aa:bb:cc:dd:ee:02"), "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02");
    EXPECT_EQ(findDevice(tree, "/org/bluez/hci0", "NKR Pro"), "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01");
    EXPECT_EQ(findDevice(tree, "/org/bluez/hci0", "NKR Other"), "") << "a device of another adapter";
}
