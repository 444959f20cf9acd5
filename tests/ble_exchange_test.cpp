// The BLE request exchange against the simulated helper: sequencing, the
// new-connection grace, notifications and short frames. Silence, stale and
// damaged answers and refused sends are covered through the exports in FaultBle.
#include <future>
#include <vector>

#include "ble_test_support.h"

namespace {
using nkrtest::BleTest;
using nkrtest::bleUnitWithFirmware;
using Bytes = std::vector<uint8_t>;

class BleExchange : public BleTest {
protected:
    void SetUp() override
    {
        BleTest::SetUp();
        pairCodes().clear();
        device = connect(bleUnitWithFirmware(382), &unit);
    }

    static std::vector<int>& pairCodes()
    {
        static std::vector<int> codes;
        return codes;
    }
    static void recordPairState(_NKR_ERROR_CODE code) { pairCodes().push_back(code); }

    int request(Bytes& out, bool wait = true)
    {
        return device->bleSendData(BLEProtocol::CMD_DEVICE, statusPayload(), wait, out);
    }
    uint8_t lastSentSequence() { return nkrsim::sentFrames(unit).back()[2]; }

    nkrsim::UnitId unit = -1;
    std::unique_ptr<CNKR> device;
};

TEST_F(BleExchange, NoWaitSendsOneFrameAndLeavesTheOutputAloneAndSequenceNumbersWrap)
{
    Bytes out = {0xAA, 0xBB};
    EXPECT_EQ(request(out, false), NKR_SUCCESS);
    EXPECT_EQ(out, (Bytes{0xAA, 0xBB}));
    auto frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 1u);
    const Bytes f = frames[0];
    ASSERT_EQ(f.size(), 13u);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 12),
              (Bytes{0x00, 0x04, f[2], 0x02, 0x7E, 0x5A, 0x02, 0x03, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(f[12], BLEProtocol::calculateChecksum(f.data(), 12));

    // The sequence number is 8 bits: the 256th request after it wraps to it.
    for (int i = 0; i < 256; ++i) ASSERT_EQ(request(out, false), NKR_SUCCESS);
    frames = nkrsim::sentFrames(unit);
    ASSERT_EQ(frames.size(), 257u);
    for (size_t i = 1; i < frames.size(); ++i)
        ASSERT_EQ(frames[i][2], uint8_t(frames[i - 1][2] + 1)) << "request " << i;
    EXPECT_EQ(frames[256][2], frames[0][2]);
}

TEST_F(BleExchange, AnswerIsTheFrameFromByteOneWithTheChecksumOnlyStrippedOnSuccess)
{
    Bytes out;
    ASSERT_EQ(request(out), NKR_SUCCESS);
    ASSERT_GE(out.size(), 7u);
    EXPECT_EQ(out[1], lastSentSequence());
    EXPECT_EQ(out[2], 0x00);
    const size_t decodedSize = out.size();

    // A failure status goes back raw, checksum byte included.
    nkrsim::bleStatus(unit, 0x05);
    ASSERT_EQ(request(out), NKR_SUCCESS);
    ASSERT_EQ(out.size(), decodedSize + 1);
    EXPECT_EQ(out[2], 0x05);
    Bytes frame = {0x01};
    frame.insert(frame.end(), out.begin(), out.end() - 1);
    EXPECT_EQ(out.back(), BLEProtocol::calculateChecksum(frame.data(), uint32_t(frame.size())));
}

TEST_F(BleExchange, NewConnectionAllowsTwelveEmptyWaits)
{
    ASSERT_EQ(device->BLERegPairStateCallback(&recordPairState), NKR_SUCCESS);
    nkrsim::bleNewConnection(unit, 12);
    Bytes out;
    EXPECT_EQ(request(out), NKR_SUCCESS);
    EXPECT_EQ(out[1], lastSentSequence());
    EXPECT_EQ(pairCodes(), (std::vector<int>{NKR_ERROR_BLE_NEW_CONNECTION}));

    nkrsim::bleNewConnection(unit, 13);
    EXPECT_EQ(request(out), NKR_ERROR_BLE_NO_ANSWER);

    // The late answer left behind is stale for the next request.
    out.clear();
    EXPECT_EQ(request(out), NKR_SUCCESS);
    EXPECT_EQ(out[1], lastSentSequence());
}

TEST_F(BleExchange, PairingNotificationsEndTheExchange)
{
    ASSERT_EQ(device->BLERegPairStateCallback(&recordPairState), NKR_SUCCESS);
    Bytes out = {0x11};
    nkrsim::bleNotifyInstead(unit, 0x00);
    EXPECT_EQ(request(out), NKR_SUCCESS);
    nkrsim::bleNotifyInstead(unit, 0x01);
    EXPECT_EQ(request(out), NKR_ERROR_BLE_PAIR_REFUSED);
    EXPECT_EQ(out, Bytes{0x11});
    EXPECT_EQ(pairCodes(), (std::vector<int>{NKR_SUCCESS, NKR_ERROR_BLE_PAIR_REFUSED}));

    // Other events are dropped and the exchange waits on (here: in vain).
    nkrsim::bleNotifyInstead(unit, 0x07);
    EXPECT_EQ(request(out), NKR_ERROR_BLE_NO_ANSWER);
    EXPECT_EQ(pairCodes().size(), 2u);
}

TEST_F(BleExchange, TooShortFramesFailAndTheDeviceStaysUsable)
{
    Bytes out = {0x42};
    nkrsim::bleRawAnswer(unit, {0x02, 0x00, 0x00});
    EXPECT_EQ(request(out), NKR_ERROR_GENERAL);
    // A 4-byte notification loses its checksum byte and with it the event code.
    nkrsim::bleRawAnswer(unit, {0x02, 0x00, 0x00, 0x02});
    EXPECT_EQ(request(out), NKR_ERROR_GENERAL);
    // A matching response cut after its sequence number.
    const uint8_t next = uint8_t(lastSentSequence() + 1);
    nkrsim::bleRawAnswer(unit, {0x01, 0x00, next});
    EXPECT_EQ(request(out), NKR_ERROR_GENERAL);
    EXPECT_EQ(out, Bytes{0x42});

    // The exchange lock was released: another thread can take it.
    auto other = std::async(std::launch::async, [&] {
        bool free = device->m_bleMutex.try_lock();
        if (free) device->m_bleMutex.unlock();
        return free;
    });
    EXPECT_TRUE(other.get());
    EXPECT_EQ(request(out), NKR_SUCCESS);
    EXPECT_EQ(out[1], lastSentSequence());

    // A payload too short to be a device command is refused before sending.
    const size_t sent = nkrsim::sentFrames(unit).size();
    EXPECT_EQ(device->bleSendData(BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02}, true, out), NKR_ERROR_GENERAL);
    EXPECT_EQ(nkrsim::sentFrames(unit).size(), sent);
    CNKR unconnected;
    EXPECT_EQ(unconnected.bleSendData(BLEProtocol::CMD_DEVICE, statusPayload(), true, out), NKR_ERROR_INVALID_ID);
}

}  // namespace
