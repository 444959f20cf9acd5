// HID exchange: what a raw command puts on the wire and reads back. Error
// counting and reconnects are covered through the exports in FaultUsb.
#include <cstring>

#include "device_support.h"

namespace {
using devicetest::Bytes;
using devicetest::DeviceTest;
using nkrtest::unitWithFirmware;

class DeviceHid : public DeviceTest {};

TEST_F(DeviceHid, RawCommandSendsOneReportOfTheUnitsLengthAndReadsOneReply)
{
    for (int len : {16, 64}) {
        SCOPED_TRACE(len);
        nkrsim::UnitSpec spec = unitWithFirmware(336);
        spec.outputReportLen = len;
        nkrsim::UnitId unit;
        int id = openQuiet(spec, &unit);
        unsigned char cmd[100] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
        cmd[len - 1] = 0xAB;

        // Without a reply buffer a read only sends, cut to one report.
        EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, nullptr), NKR_SUCCESS);
        std::vector<Bytes> sent = nkrsim::sentReports(unit);
        ASSERT_EQ(sent.size(), 1u);
        ASSERT_EQ(sent[0].size(), static_cast<size_t>(len));
        EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 5), Bytes(cmd, cmd + 5));
        EXPECT_EQ(sent[0].back(), 0xAB);

        // With one, the 17-byte answer behind report id 1; the rest of the buffer is untouched.
        unsigned char reply[NKR_BUF_SIZE];
        std::memset(reply, 0xEE, sizeof reply);
        EXPECT_EQ(NKRSendCMD(id, cmd, sizeof cmd, true, reply), NKR_SUCCESS);
        EXPECT_EQ(reply[0], 0x01);
        EXPECT_EQ(Bytes(reply + 4, reply + 7), (Bytes{3, 3, 6}));
        EXPECT_EQ(reply[17], 0xEE);
    }
}

}  // namespace
