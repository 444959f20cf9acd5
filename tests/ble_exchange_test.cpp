// The BLE request exchange through the exports, against the simulated helper:
// sequencing, the new-connection grace, notifications and short frames.
// Silence, stale and damaged answers and refused sends are in FaultBle.
#include <vector>

#include "ble_test_support.h"

namespace {
using Bytes = std::vector<uint8_t>;

std::vector<int> g_pairCodes;
void recordPairState(_NKR_ERROR_CODE code) { g_pairCodes.push_back(code); }

class BleExchange : public nkrtest::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        g_pairCodes.clear();
        const nkrsim::UnitSpec spec = nkrtest::bleUnitWithFirmware(382);
        unit = nkrsim::addUnit(spec);
        id = nkrtest::connectAndPair(spec, unit);
        ASSERT_EQ(NKRBLERegPairStateCallback(id, &recordPairState), NKR_SUCCESS);
        nkrsim::clearSentFrames(unit);
    }
    int request() { return NKRGetPosition(id, &pos); }
    uint8_t lastSentSequence() { return nkrsim::sentFrames(unit).back()[2]; }
    nkrsim::UnitId unit = -1;
    int id = -1, pos = -1;
};

TEST_F(BleExchange, FrameLayoutAndSequenceNumbersThatWrap)
{
    ASSERT_EQ(request(), NKR_SUCCESS);
    auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    const Bytes f = frames[0];
    ASSERT_EQ(f.size(), 13u);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 12),
              (Bytes{0x00, 0x04, f[2], 0x02, 0x7E, 0x5A, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(f[12], BLEProtocol::calculateChecksum(f.data(), 12));
    // The sequence number is 8 bits: the 256th request after it wraps to it.
    for (int i = 0; i < 256; ++i) ASSERT_EQ(request(), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 257u);
    for (size_t i = 1; i < frames.size(); ++i) ASSERT_EQ(frames[i][2], uint8_t(frames[i - 1][2] + 1)) << i;
}

TEST_F(BleExchange, NewConnectionAllowsTwelveEmptyWaits)
{
    nkrsim::update(unit, [](nkrsim::UnitState& s) { s.position = 4321; });
    nkrsim::bleNewConnection(unit, 12);
    EXPECT_EQ(request(), NKR_SUCCESS);
    EXPECT_EQ(pos, 4321);
    EXPECT_EQ(g_pairCodes, (std::vector<int>{NKR_ERROR_BLE_NEW_CONNECTION}));
    nkrsim::bleNewConnection(unit, 13);
    EXPECT_EQ(request(), NKR_ERROR_BLE_NO_ANSWER);
    // The late answer left behind is stale for the next request.
    pos = -1;
    EXPECT_EQ(request(), NKR_SUCCESS);
    EXPECT_EQ(pos, 4321);
}

TEST_F(BleExchange, PairingNotificationsEndTheExchange)
{
    nkrsim::bleNotifyInstead(unit, 0x00);
    EXPECT_EQ(request(), NKR_SUCCESS);
    nkrsim::bleNotifyInstead(unit, 0x01);
    EXPECT_EQ(request(), NKR_ERROR_BLE_PAIR_REFUSED);
    EXPECT_EQ(g_pairCodes, (std::vector<int>{NKR_SUCCESS, NKR_ERROR_BLE_PAIR_REFUSED}));
    // Other events are dropped and the exchange waits on (here: in vain).
    nkrsim::bleNotifyInstead(unit, 0x07);
    EXPECT_EQ(request(), NKR_ERROR_BLE_NO_ANSWER);
    EXPECT_EQ(g_pairCodes.size(), 2u);
}

TEST_F(BleExchange, TooShortFramesFailAndTheUnitStaysUsable)
{
    ASSERT_EQ(request(), NKR_SUCCESS);
    const int before = pos;
    // A 3-byte frame; a 4-byte notification that loses its checksum byte and
    // with it the event code; a matching response cut after its sequence number.
    for (Bytes frame : {Bytes{0x02, 0x00, 0x00}, Bytes{0x02, 0x00, 0x00, 0x02}, Bytes{0x01, 0x00, 0x00}}) {
        if (frame[0] == 0x01) frame[2] = uint8_t(lastSentSequence() + 1);
        nkrsim::bleRawAnswer(unit, frame);
        pos = -7;
        EXPECT_EQ(request(), NKR_ERROR_GENERAL);
        EXPECT_EQ(pos, -7);
    }
    EXPECT_EQ(request(), NKR_SUCCESS);
    EXPECT_EQ(pos, before);
}

}  // namespace
