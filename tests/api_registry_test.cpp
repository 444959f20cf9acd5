// Slot registry and call frame: stable ids across scans, slot states and the
// frame's own results. Closing a slot while other threads use it: ConcurrencyStress.
#include "test_support.h"

namespace {
using nkrtest::unitWithFirmware;

class Registry : public nkrtest::SimTest {};

TEST_F(Registry, UnitsWithOtherUsbIdsAreFoundOnlyWhenNkrUsbIdNamesThem)
{
    nkrsim::addUnit(unitWithFirmware(335));
    nkrsim::UnitSpec other = unitWithFirmware(382);
    other.usbVendorId = 0x16C0, other.usbProductId = 0x05DF;
    nkrsim::UnitId b = nkrsim::addUnit(other);
    EXPECT_EQ(NKRGetNum(), 1);
    EXPECT_EQ(NKRCheck(0x16C0, 0x05DF), 0);
    // Bad entries are skipped; the good one and the default both match.
    setenv("NKR_USB_ID", "zz:1, 16c0:05DF,1209", 1);
    ASSERT_EQ(NKRGetNum(), 2);
    EXPECT_EQ(NKRCheck(0x16C0, 0x05DF) + NKRCheck(FOCUSER_USB_VID, FOCUSER_USB_PID), 2);
    int id = -1;
    ASSERT_EQ(NKRGetID(1, &id), NKR_SUCCESS);
    EXPECT_EQ(slotPath(id), nkrsim::usbPath(b));
    for (int rc : {NKROpen(id), NKRClose(id)}) EXPECT_EQ(rc, NKR_SUCCESS);
}

TEST_F(Registry, SlotIdsStayStableAndNewUnitsTakeTheLowestFreeSlot)
{
    nkrsim::UnitId a = nkrsim::addUnit(unitWithFirmware(335));
    nkrsim::UnitId b = nkrsim::addUnit(unitWithFirmware(336));
    ASSERT_EQ(NKRGetNum(), 2);
    const std::string pathA = nkrsim::usbPath(a), pathB = nkrsim::usbPath(b);
    const int idA = slotPath(0) == pathA ? 0 : 1, idB = 1 - idA;
    // Same devices, same ids, whatever the scan order.
    ASSERT_EQ(NKRGetNum(), 2);
    EXPECT_EQ(slotPath(idA) + slotPath(idB), pathA + pathB);
    // The open unit in slot idA goes away: the scan closes it and frees its slot.
    ASSERT_EQ(NKROpen(idA), NKR_SUCCESS);
    nkrsim::unplug(a);
    ASSERT_EQ(NKRGetNum(), 1);
    int pos = 0;
    EXPECT_EQ(NKRGetPosition(idA, &pos), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(slotPath(idA) + "|" + slotPath(idB), "|" + pathB);
    // A new unit takes the lowest free slot.
    nkrsim::UnitId c = nkrsim::addUnit(unitWithFirmware(382));
    ASSERT_EQ(NKRGetNum(), 2);
    EXPECT_EQ(slotPath(idA) + "|" + slotPath(idB), nkrsim::usbPath(c) + "|" + pathB);
}

TEST_F(Registry, OpenCloseAndFrameResultsForEachSlotState)
{
    // Free slot.
    int pos = 0;
    for (int rc : {NKROpen(3), NKRClose(3), NKRGetPosition(3, &pos), NKRGetPosition(-1, &pos)})
        EXPECT_EQ(rc, NKR_ERROR_INVALID_ID);
    // Known slot: framed calls find no object; closing is a no-op. Scan
    // indices outside the last scan have no id.
    const int id = plugAndScan(unitWithFirmware(336));
    ASSERT_EQ(id, 0);
    int other = 77;
    for (int rc : {NKRGetID(1, &other), NKRGetID(-1, &other)}) EXPECT_EQ(rc, NKR_ERROR_INVALID_INDEX);
    EXPECT_EQ(other, 77);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_CLOSED);
    EXPECT_EQ(NKRClose(id), NKR_SUCCESS);
    // Open slot: a second open is a no-op.
    ASSERT_EQ(NKROpen(id), NKR_SUCCESS);
    for (int rc : {NKROpen(id), NKRGetPosition(id, &pos), NKRClose(id)}) EXPECT_EQ(rc, NKR_SUCCESS);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_CLOSED);
    // Bluetooth ids without an object, inside and beyond the table; a null output.
    for (int rc : {NKRGetPosition(60, &pos), NKRGetPosition(500, &pos)}) EXPECT_EQ(rc, NKR_ERROR_BLE_NOT_OPEN);
    EXPECT_EQ(NKRGetPosition(id, nullptr), NKR_ERROR_INVALID_VALUE);
}

TEST_F(Registry, PropertyOfAnUnopenableOrClosedSlotLeavesItClosed)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.alias = "Main";
    int id = plugAndScan(spec);
    _NKR_INFO info{};
    ASSERT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_EQ(std::pair(std::string(info.Name), info.MaxStep), std::pair(std::string("NKR(Main)"), 600000));
    int pos = 0;
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_CLOSED);
    // An open that fails leaves the slot known; the property call still
    // succeeds, with defaults, so that a host can list the unit.
    nkrsim::UnitId unit;
    id = plugAndScan(unitWithFirmware(336), &unit);
    nkrsim::refuseOpen(unit, true);
    EXPECT_EQ(NKROpen(id), NKR_ERROR_REMOVED);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_CLOSED);
    info = {};
    EXPECT_EQ(NKRGetProperty(id, &info), NKR_SUCCESS);
    EXPECT_EQ(std::tuple(info.ID, std::string(info.Name), info.MaxStep), std::tuple(id, std::string("NKR"), 0));
    EXPECT_EQ((std::pair{NKRGetProperty(70, &info), info.ID}), std::pair(int(NKR_ERROR_BLE_NOT_OPEN), 70));
}

TEST_F(Registry, IdentificationExports)
{
    EXPECT_STREQ(get_NKR_SDK_Ver(), "1, 7, 7, 0");
    EXPECT_EQ(NKRGetSDKVersion(), get_NKR_SDK_Ver());
    int pid = 0;
    EXPECT_EQ((std::tuple{NKRGetProductIDs(nullptr), NKRGetProductIDs(&pid), pid}), std::tuple(1, 1, FOCUSER_USB_PID));
    EXPECT_EQ(NKRCheck(FOCUSER_USB_VID, FOCUSER_USB_PID) * 10 + NKRCheck(FOCUSER_USB_VID, FOCUSER_USB_PID + 1), 10);
}

}  // namespace
