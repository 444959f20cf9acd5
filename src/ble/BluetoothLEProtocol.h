// BLE frame codec: requests to the unit, responses and notifications from it.
//
// Request:      00 len seq cmd payload... lenHigh 00 00 00 sum
// Response:     01 len seq status h h h payload... sum   (payload from offset 7)
// Notification: 02 len id event payload... sum           (payload from offset 4)
// The checksum is the 8-bit sum of every byte before it.
#pragma once
#include <cstdint>
#include <vector>

namespace BLEProtocol {

enum CommandType : uint8_t {
    CMD_PAIR = 0,
    CMD_CLEAR_PAIR = 1,
    CMD_DEVICE = 2,
    CMD_EXTENDED = 3,
};

enum FrameType : uint8_t {
    FRAME_REQUEST = 0x00,
    FRAME_RESPONSE = 0x01,
    FRAME_NOTIFICATION = 0x02,
};

inline constexpr uint8_t STATUS_NEW_CONNECTION = 0x9B;

// Fields shared by the three records, in wire order of a request.
struct ProtoRecord {
    uint8_t type = 0;
    uint8_t length = 0;
    uint8_t sequence = 0;
    uint8_t command = 0;
    std::vector<uint8_t> data;
    uint8_t lengthHigh = 0;
    uint8_t reserved[3] = {0, 0, 0};
    uint8_t checksum = 0;
};

struct ProtoRequest : ProtoRecord {
    // Appends the request in wire order and its checksum to out.
    void calculateChecksum(std::vector<uint8_t>& out);
};

struct ProtoResponse : ProtoRecord {
    // checksum = sum of every byte of frame.
    void calculateChecksum(const std::vector<uint8_t>& frame);
};

struct ProtoNotification : ProtoRecord {
    void calculateChecksum(const std::vector<uint8_t>& frame);
};

// 8-bit additive sum of count bytes.
uint8_t calculateChecksum(const uint8_t* bytes, uint32_t count);
// Serialises a request into out (expected empty).
void encodeRequest(ProtoRequest& request, std::vector<uint8_t>& out);
// Checks a response frame; removes its checksum byte from frame in every case.
// 0 when the checksum matches, -1 otherwise or when the frame is shorter than 4 bytes.
int32_t decodeResponse(std::vector<uint8_t>& frame);
// The same for a notification frame.
int32_t decodeNotification(std::vector<uint8_t>& frame);
// Sum of type, length, sequence and payload compared with expected; 0 or -1.
int32_t checkChecksum(const ProtoRequest& request, uint8_t unused, uint8_t expected);
// length + 3.
int32_t getProtoLength(const ProtoRequest& request);

}  // namespace BLEProtocol
