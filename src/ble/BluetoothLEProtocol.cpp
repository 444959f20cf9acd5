// BLE frame codec. Stateless; the exchange in NKR_ble.cpp owns sequencing.
#include "BluetoothLEProtocol.h"

#include <cstddef>

#include "../log/Log.h"

namespace BLEProtocol {

namespace {

// Smallest frame whose header (type, length, sequence, status/event) is whole.
constexpr size_t kHeaderBytes = 4;
// Responses carry three more header bytes before their payload.
constexpr size_t kResponsePayloadOffset = 7;
constexpr size_t kNotificationPayloadOffset = 4;

// Fills the header fields and the payload (bytes from payloadOffset up to, not
// including, the trailing checksum byte) of a received frame.
void readReceivedFrame(const std::vector<uint8_t>& frame, uint8_t type, size_t payloadOffset,
                       ProtoRecord& record)
{
    record.type = type;
    record.length = frame[1];
    record.sequence = frame[2];
    record.command = frame[3];
    const size_t payloadEnd = frame.size() - 1;
    if (payloadEnd > payloadOffset)
        record.data.assign(frame.begin() + static_cast<std::ptrdiff_t>(payloadOffset),
                           frame.begin() + static_cast<std::ptrdiff_t>(payloadEnd));
}

// Drops the trailing checksum byte from frame and returns it; record.checksum
// receives the sum of what remains.
template <typename Record>
uint8_t stripChecksum(std::vector<uint8_t>& frame, Record& record)
{
    const uint8_t received = frame.back();
    frame.pop_back();
    record.calculateChecksum(frame);
    return received;
}

}  // namespace

uint8_t calculateChecksum(const uint8_t* bytes, uint32_t count)
{
    uint8_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

void ProtoRequest::calculateChecksum(std::vector<uint8_t>& out)
{
    // Header, payload, length high byte, reserved and checksum: one allocation.
    out.reserve(out.size() + data.size() + 9);
    out.push_back(type);
    out.push_back(length);
    out.push_back(sequence);
    out.push_back(command);
    out.insert(out.end(), data.begin(), data.end());
    // The unit expects the high length byte after the payload, not beside the low one.
    out.push_back(lengthHigh);
    out.insert(out.end(), reserved, reserved + 3);
    checksum = BLEProtocol::calculateChecksum(out.data(), static_cast<uint32_t>(out.size()));
    out.push_back(checksum);
}

void ProtoResponse::calculateChecksum(const std::vector<uint8_t>& frame)
{
    checksum = BLEProtocol::calculateChecksum(frame.data(), static_cast<uint32_t>(frame.size()));
}

void ProtoNotification::calculateChecksum(const std::vector<uint8_t>& frame)
{
    checksum = BLEProtocol::calculateChecksum(frame.data(), static_cast<uint32_t>(frame.size()));
}

void encodeRequest(ProtoRequest& request, std::vector<uint8_t>& out)
{
    request.calculateChecksum(out);
}

int32_t decodeResponse(std::vector<uint8_t>& frame)
{
    if (frame.size() < kHeaderBytes) return -1;
    ProtoResponse response;
    readReceivedFrame(frame, FRAME_RESPONSE, kResponsePayloadOffset, response);
    const uint8_t received = stripChecksum(frame, response);
    if (received != response.checksum) {
        NKR_LOG_AT(64, "checksum: %d, calculateChecksum: %d", received, response.checksum);
        return -1;
    }
    return 0;
}

int32_t decodeNotification(std::vector<uint8_t>& frame)
{
    if (frame.size() < kHeaderBytes) return -1;
    ProtoNotification notification;
    readReceivedFrame(frame, FRAME_NOTIFICATION, kNotificationPayloadOffset, notification);
    const uint8_t received = stripChecksum(frame, notification);
    if (received != notification.checksum) {
        NKR_LOG_AT(64, "checksum: %d, calculateChecksum: %d", received, notification.checksum);
        return -1;
    }
    return 0;
}

int32_t checkChecksum(const ProtoRequest& request, uint8_t /*unused*/, uint8_t expected)
{
    // The command byte and the trailing header bytes are left out on purpose:
    // this is the historical definition, kept as it was published.
    uint8_t sum = static_cast<uint8_t>(request.type + request.length + request.sequence);
    for (uint8_t b : request.data) sum = static_cast<uint8_t>(sum + b);
    return sum == expected ? 0 : -1;
}

int32_t getProtoLength(const ProtoRequest& request)
{
    return request.length + 3;
}

}  // namespace BLEProtocol
