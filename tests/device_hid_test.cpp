// HID exchange: error mapping, error counting and reconnection, and what a
// raw command puts on the wire.
#include <cerrno>
#include <cstring>

#include "device_support.h"

namespace {
using devicetest::Bytes;
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceHid : public DeviceTest {};

TEST_F(DeviceHid, UnpluggedUnitGives4AndIsNotCountedOtherErrorsGive7)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    CNKR* d = dev(id);

    nkrsim::failTransfers(unit, 1, ENODEV);
    EXPECT_EQ(NKRSetBeep(id, true), NKR_ERROR_REMOVED);
    EXPECT_EQ(d->m_cHidErr, 0);

    nkrsim::failTransfers(unit, 1, EIO);
    EXPECT_EQ(NKRSetBeep(id, true), NKR_ERROR_GENERAL);
    EXPECT_EQ(d->m_cHidErr, 1);

    // Really unplugged: every exchange fails with ENODEV, nothing reconnects.
    nkrsim::unplug(unit);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(NKRSetBeep(id, true), NKR_ERROR_REMOVED);
    EXPECT_EQ(d->m_cHidErr, 1);
    EXPECT_EQ(d->m_cReconnect, 0);
}

TEST_F(DeviceHid, FourthErrorInARowReconnectsAtMostThreeTimesAndASuccessResets)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    CNKR* d = dev(id);

    nkrsim::failTransfers(unit, 10, EIO);
    const int expectErr[] = {1, 2, 3, 4, 5, 6, 6, 6, 6, 6};
    const int expectReconnect[] = {0, 0, 0, 1, 2, 3, 3, 3, 3, 3};
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(NKRSetBeep(id, true), NKR_ERROR_GENERAL);
        EXPECT_EQ(d->m_cHidErr, expectErr[i]);
        EXPECT_EQ(d->m_cReconnect, expectReconnect[i]);
        EXPECT_TRUE(d->m_bOpen);
    }
    EXPECT_EQ(NKRSetBeep(id, true), NKR_SUCCESS);
    EXPECT_EQ(d->m_cHidErr, 0);
    EXPECT_EQ(d->m_cReconnect, 0);
    EXPECT_TRUE(nkrsim::state(unit).beep);
}

TEST_F(DeviceHid, FailedReconnectLeavesTheLinkClosed)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    CNKR* d = dev(id);

    nkrsim::failTransfers(unit, 4, EIO);
    nkrsim::refuseOpen(unit, true);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(NKRSetBeep(id, true), NKR_ERROR_GENERAL);
    EXPECT_FALSE(d->m_bOpen);
    EXPECT_EQ(d->m_hDev, nullptr);

    // Even once the unit would open again, nothing retries until a new open.
    nkrsim::refuseOpen(unit, false);
    nkrsim::clearSentReports(unit);
    int pos = -1;
    unsigned char cmd[] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
    EXPECT_EQ(NKRSetBeep(id, false), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(NKRGetPosition(id, &pos), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, false, nullptr), NKR_ERROR_INVALID_ID);
    EXPECT_EQ(pos, -1);
    EXPECT_TRUE(nkrsim::sentReports(unit).empty());
}

TEST_F(DeviceHid, RawCommandCopiesAtMostOneReportOverWhatTheBufferHeld)
{
    nkrsim::UnitId unit;
    int id = openQuiet(unitWithFirmware(336), &unit);
    ASSERT_EQ(NKRSetBacklash(id, 0x42), NKR_SUCCESS);
    Bytes control = devicetest::lastControlFrame(unit);
    ASSERT_EQ(control.size(), 16u);

    // A read without a reply buffer only sends.
    unsigned char version[] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSendCMD(id, version, sizeof version, true, nullptr), NKR_SUCCESS);
    std::vector<Bytes> sent = nkrsim::sentReports(unit);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].size(), 16u);
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 5), Bytes(version, version + 5));
    // The bytes after the command are what the control frame left behind.
    EXPECT_EQ(Bytes(sent[0].begin() + 5, sent[0].end()), Bytes(control.begin() + 5, control.end()));

    // With a reply buffer the answer is read behind report id 1.
    unsigned char reply[NKR_BUF_SIZE] = {0};
    EXPECT_EQ(NKRSendCMD(id, version, sizeof version, true, reply), NKR_SUCCESS);
    EXPECT_EQ(reply[0], 0x01);
    EXPECT_EQ(reply[4], 3);
    EXPECT_EQ(reply[5], 3);
    EXPECT_EQ(reply[6], 6);

    // A longer command is cut to the report length.
    unsigned char longCmd[100] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
    nkrsim::clearSentReports(unit);
    EXPECT_EQ(NKRSendCMD(id, longCmd, sizeof longCmd, false, nullptr), NKR_SUCCESS);
    ASSERT_EQ(nkrsim::sentReports(unit).size(), 1u);
    EXPECT_EQ(nkrsim::sentReports(unit)[0].size(), 16u);
}

TEST_F(DeviceHid, LongReportsSendTheWholeStagingReport)
{
    nkrsim::UnitSpec spec = unitWithFirmware(336);
    spec.outputReportLen = 64;
    nkrsim::UnitId unit;
    int id = openQuiet(spec, &unit);
    unsigned char cmd[80] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
    cmd[63] = 0xAB;
    cmd[64] = 0xCD;
    unsigned char reply[NKR_BUF_SIZE];
    std::memset(reply, 0xEE, sizeof reply);
    EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, reply), NKR_SUCCESS);
    Bytes sent = nkrsim::sentReports(unit).back();
    ASSERT_EQ(sent.size(), 64u);
    EXPECT_EQ(sent[63], 0xAB);
    // The reply is the 17-byte input report; the rest of the buffer is untouched.
    EXPECT_EQ(reply[17], 0xEE);
}

}  // namespace
