// Opening a unit: report length and firmware-derived capabilities; closing
// it. The restore of a unit found at 30000 is tested in Persist.
#include "device_support.h"

namespace {
using devicetest::Bytes;
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceOpen : public DeviceTest {};

TEST_F(DeviceOpen, OutputReportLengthComesFromTheDescriptorWhenItIs16Or64)
{
    nkrsim::UnitSpec wide = unitWithFirmware(336);
    wide.outputReportLen = 64;
    nkrsim::UnitId unit;
    int id = openQuiet(wide, &unit);
    EXPECT_EQ(dev(id)->m_iOutputReportLen, 64);
    ASSERT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
    ASSERT_FALSE(nkrsim::sentReports(unit).empty());
    EXPECT_EQ(nkrsim::sentReports(unit).back().size(), 64u);
    // Replies stay 17 bytes whatever the output length.
    EXPECT_EQ(dev(id)->m_iInputReportLen, 17);

    // The lengths the simulator's descriptor file declares; -1 when it has none.
    // Checked here so that the 16s below cannot come from a broken file.
    auto declaredOutput = [](nkrsim::UnitId u) {
        int in = -1, out = -1;
        return get_hid_report_descriptor_linux_mac(nullptr, nkrsim::usbPath(u).c_str(), &in, &out) == 0 ? out : -1;
    };
    EXPECT_EQ(declaredOutput(unit), 64);

    id = openUnit(unitWithFirmware(336), &unit);
    EXPECT_EQ(declaredOutput(unit), 16);
    EXPECT_EQ(dev(id)->m_iOutputReportLen, 16);

    // Report 3 output of 32 bytes: not a length the firmware uses.
    nkrsim::UnitSpec odd = unitWithFirmware(336);
    odd.descriptor = {0x85, 0x01, 0x75, 0x08, 0x95, 0x10, 0x81, 0x02,
                      0x85, 0x03, 0x75, 0x08, 0x95, 0x1F, 0x91, 0x02};
    id = openUnit(odd, &unit);
    EXPECT_EQ(declaredOutput(unit), 32);
    EXPECT_EQ(dev(id)->m_iOutputReportLen, 16);

    nkrsim::UnitSpec hidden = unitWithFirmware(336);
    hidden.outputReportLen = 64;
    hidden.descriptorReadable = false;
    id = openUnit(hidden, &unit);
    EXPECT_EQ(declaredOutput(unit), -1);
    EXPECT_EQ(dev(id)->m_iOutputReportLen, 16);
}

TEST_F(DeviceOpen, FirmwareVersionDecidesSensorSerialCommandsAndStepLimit)
{
    struct Case {
        int fw;
        bool thermistor, canSerial;
        int stepLimit;
        bool usbUpdate;
    };
    const Case cases[] = {
        {300, true, false, 60000, false},  {301, false, false, 60000, false},
        {310, false, false, 60000, false}, {321, false, false, 60000, false},
        {322, false, true, 60000, false},  {335, false, true, 60000, false},
        {336, false, true, 600000, false}, {369, false, true, 600000, false},
        {370, false, true, 600000, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fw);
        nkrsim::UnitId unit;
        CNKR* d = dev(openUnit(unitWithFirmware(c.fw), &unit));
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->fwVersion, c.fw);
        EXPECT_EQ(d->m_bThermistor, c.thermistor);
        EXPECT_EQ(d->m_bCanSerial, c.canSerial);
        EXPECT_FALSE(d->m_bCanFactory);
        EXPECT_EQ(d->m_iStepLimit, c.stepLimit);
        EXPECT_EQ(d->bSupportUsbUpdate, c.usbUpdate);
    }
}

TEST_F(DeviceOpen, ModelLetterEMarksTheNewerFamily)
{
    nkrsim::UnitId unit;
    CNKR* d = dev(openUnit(nkrtest::proUnitWithFirmware(321), &unit));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->m_strType, "NKR Pro");
    EXPECT_TRUE(d->m_bCanSerial);
    EXPECT_TRUE(d->m_bCanFactory);
    EXPECT_EQ(d->m_iStepLimit, 600000);
    EXPECT_TRUE(d->bSupportBleName && d->bSupportLed && d->bSupportBuzzer && d->bSupportBattery &&
                d->bSupportType && d->bSupportErrCode);
    EXPECT_FALSE(d->bSupportBleUpdate);
    EXPECT_FALSE(d->bSupportUsbUpdate);
}

TEST_F(DeviceOpen, CloseStoresTheConfigurationWithRunOffAndStopsARunningMove)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRSetBacklash(id, 12), NKR_SUCCESS);
    nkrsim::clearSentReports(unit);
    ASSERT_EQ(NKRClose(id), NKR_SUCCESS);
    std::vector<Bytes> frames = devicetest::controlFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0][4], 0);
    EXPECT_EQ(frames[0][5], 12);
    EXPECT_EQ(frames[0][10], 0);

    // Storing the configuration is refused while moving; close stops the motor.
    id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRMove(id, 50000), NKR_SUCCESS);
    ASSERT_EQ(nkrsim::state(unit).runState, 1);
    ASSERT_EQ(NKRClose(id), NKR_SUCCESS);
    EXPECT_EQ(devicetest::lastControlFrame(unit)[4], 0);
    EXPECT_EQ(nkrsim::state(unit).runState, 0);
}

TEST_F(DeviceOpen, DestroyingAnOpenObjectIsSafe)
{
    // The destructor frees the report buffers before it closes.
    nkrsim::UnitId unit = nkrsim::addUnit(unitWithFirmware(336));
    std::string path = nkrsim::usbPath(unit);
    auto* d = new CNKR;
    ASSERT_TRUE(d->open(path.c_str()));
    EXPECT_TRUE(d->open(path.c_str()));  // already open
    ASSERT_EQ(d->SetStep(40000, false), NKR_SUCCESS);
    delete d;
    SUCCEED();
}

}  // namespace
