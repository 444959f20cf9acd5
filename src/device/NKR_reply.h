// Command header and answer bounds shared by the identity, power and update
// commands.
//
// An HID command is 03 7E 5A <command> <payload>; its answer comes back as
// 01 <echo of 7E 5A cmd> <data from byte 4>. Over BLE the same command goes
// without its report id, and the answer carries its status at index 2 and
// its data from index 4.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "NKR.h"

namespace nkrcmd {

inline constexpr unsigned char kReportId = 0x03;
inline constexpr unsigned char kMagic0 = 0x7E;
inline constexpr unsigned char kMagic1 = 0x5A;
inline constexpr unsigned char kCmdGetInfo = 0x02;
inline constexpr unsigned char kReplyReportId = 0x01;

// Bytes of an HID answer that carry meaning.
inline constexpr int kAnswerLen = 16;
// sendCMD reads m_iInputReportLen bytes (17 by default), more than the
// meaningful 16, so every answer buffer is as large as the object's own.
inline constexpr int kAnswerBufLen = NKR_BUF_SIZE;
// Where the data starts in an HID answer and in a BLE answer.
inline constexpr size_t kDataOffset = 4;
inline constexpr size_t kBleStatusIndex = 2;

// Writes the header 03 7E 5A cmd into the first four bytes of buf.
inline void putHeader(unsigned char* buf, unsigned char cmd)
{
    buf[0] = kReportId;
    buf[1] = kMagic0;
    buf[2] = kMagic1;
    buf[3] = cmd;
}

// Writes the read command 03 7E 5A 02 <selector> into buf.
inline void putReadCommand(unsigned char* buf, unsigned char selector)
{
    putHeader(buf, kCmdGetInfo);
    buf[4] = selector;
}

// Length of the text that starts at answer byte 4, taken as the unit gives
// it: strlen from byte 0 minus the header. Bounded by the answer, never
// negative (an answer with a zero in its header has no text).
inline int answerTextLen(const unsigned char* answer)
{
    size_t n = strnlen(reinterpret_cast<const char*>(answer), kAnswerLen);
    return n > kDataOffset ? static_cast<int>(n - kDataOffset) : 0;
}

// The BLE form of an HID command: the same bytes without the report id.
inline std::vector<uint8_t> blePayload(const unsigned char* cmd, size_t len)
{
    return std::vector<uint8_t>(cmd + 1, cmd + len);
}

// True when a BLE answer is long enough to read its status byte.
inline bool bleHasStatus(const std::vector<uint8_t>& answer)
{
    return answer.size() > kBleStatusIndex;
}

inline bool bleStatusOk(const std::vector<uint8_t>& answer)
{
    return answer[kBleStatusIndex] == 0;
}

// A read whose answer lands in a buffer shared by every device object (the
// serial, alias, error-code and power-off reads). The lock is held from the
// request until use() has copied the answer out, so two units read at once
// never see each other's answer; it is taken before the device lock.
struct SharedAnswer {
    std::mutex mutex;
    unsigned char bytes[kAnswerBufLen];
};

// Sends the 5-byte read command over HID into the shared buffer and, on
// success, hands the answer to use(const unsigned char*). Returns the exchange's result.
template <typename Use>
int readIntoSharedAnswer(CNKR& dev, unsigned char* cmd, SharedAnswer& shared, Use&& use)
{
    std::lock_guard<std::mutex> guard(shared.mutex);
    std::memset(shared.bytes, 0, sizeof shared.bytes);
    shared.bytes[0] = kReplyReportId;
    const int res = dev.sendCMD(cmd, 5, true, shared.bytes);
    if (res == NKR_SUCCESS) use(static_cast<const unsigned char*>(shared.bytes));
    return res;
}

// Sends a command that has no answer over the chosen link: the first len
// bytes of cmd over HID, the same less the report id over BLE.
inline int sendWithoutAnswer(CNKR& dev, unsigned char* cmd, int len, bool ble)
{
    if (ble) {
        std::vector<uint8_t> answer;
        return dev.bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, static_cast<size_t>(len)), false,
                               answer);
    }
    return dev.sendCMD(cmd, len, false, nullptr);
}

}  // namespace nkrcmd
