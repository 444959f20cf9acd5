// BLE frame codec: wire layout of requests, checksum arithmetic, and what the
// decoders leave in the caller's frame.
#include <gtest/gtest.h>

#include <vector>

#include "ble/BluetoothLEProtocol.h"

namespace {
using namespace BLEProtocol;
using Bytes = std::vector<uint8_t>;

Bytes encode(uint8_t seq, CommandType cmd, const Bytes& payload)
{
    ProtoRequest request;
    request.length = static_cast<uint8_t>(payload.size() & 0xFF);
    request.sequence = seq;
    request.command = cmd;
    request.data = payload;
    request.lengthHigh = static_cast<uint8_t>((payload.size() >> 8) & 0xFF);
    Bytes out;
    encodeRequest(request, out);
    return out;
}

// A received frame with its correct checksum appended.
Bytes withChecksum(Bytes frame)
{
    frame.push_back(calculateChecksum(frame.data(), static_cast<uint32_t>(frame.size())));
    return frame;
}

TEST(BleCodec, RequestLayoutKeepsTheHighLengthByteAfterThePayload)
{
    Bytes empty = encode(0x10, CMD_DEVICE, {});
    EXPECT_EQ(empty, (Bytes{0x00, 0x00, 0x10, 0x02, 0x00, 0x00, 0x00, 0x00, 0x12}));

    Bytes payload(300);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    Bytes big = encode(0xFE, CMD_EXTENDED, payload);
    ASSERT_EQ(big.size(), 309u);
    EXPECT_EQ(big[1], 0x2C);
    EXPECT_EQ(big[3], CMD_EXTENDED);
    EXPECT_EQ(big[4], 0x00);
    EXPECT_EQ(big[303], 0x2B);  // last payload byte (299 & 0xFF)
    EXPECT_EQ(big[304], 0x01);
    EXPECT_EQ(big[308], calculateChecksum(big.data(), 308));
}

TEST(BleCodec, ChecksumIsAPlainEightBitSum)
{
    const uint8_t carry[] = {0xFF, 0x02};
    EXPECT_EQ(calculateChecksum(carry, 2), 0x01);
    EXPECT_EQ(calculateChecksum(carry, 0), 0x00);
}

TEST(BleCodec, ResponseDecodingStripsTheChecksumByte)
{
    Bytes eight = withChecksum({0x01, 0x00, 0x07, 0x00, 0xA1, 0xA2, 0xA3});
    ASSERT_EQ(eight.size(), 8u);
    EXPECT_EQ(decodeResponse(eight), 0);
    EXPECT_EQ(eight.size(), 7u);

    Bytes nine = withChecksum({0x01, 0x01, 0x07, 0x00, 0xA1, 0xA2, 0xA3, 0x42});
    EXPECT_EQ(decodeResponse(nine), 0);
    EXPECT_EQ(nine, (Bytes{0x01, 0x01, 0x07, 0x00, 0xA1, 0xA2, 0xA3, 0x42}));

    // A length byte that disagrees with the size is not checked.
    Bytes lying = withChecksum({0x01, 0x30, 0x07, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(decodeResponse(lying), 0);
}

TEST(BleCodec, MismatchFailsAndTheFrameStillLosesItsLastByte)
{
    Bytes response = withChecksum({0x01, 0x01, 0x07, 0x00, 0x00, 0x00, 0x00, 0x42});
    response.back() = static_cast<uint8_t>(response.back() + 1);
    EXPECT_EQ(decodeResponse(response), -1);
    EXPECT_EQ(response.size(), 8u);

    Bytes notification = withChecksum({0x02, 0x00, 0x00, 0x01});
    ASSERT_EQ(notification.size(), 5u);
    Bytes good = notification;
    EXPECT_EQ(decodeNotification(good), 0);
    EXPECT_EQ(good.size(), 4u);
    notification.back() = static_cast<uint8_t>(notification.back() - 1);
    EXPECT_EQ(decodeNotification(notification), -1);
    EXPECT_EQ(notification.size(), 4u);
}

TEST(BleCodec, FramesShorterThanTheHeaderAreRefusedWithoutThrowing)
{
    for (Bytes frame : {Bytes{}, Bytes{0x01}, Bytes{0x01, 0x00, 0x00}}) {
        Bytes copy = frame;
        EXPECT_EQ(decodeResponse(copy), -1);
        EXPECT_EQ(decodeNotification(frame), -1);
    }
}

}  // namespace
