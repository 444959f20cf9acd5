// Firmware update: over USB a start, the image block by block and an end;
// over BLE a start announcing the size, then acknowledged blocks.
#include <algorithm>
#include <cstring>
#include <vector>

#include "../log/Log.h"
#include "NKR.h"
#include "NKR_reply.h"

using namespace nkrcmd;

namespace {

constexpr unsigned char kCmdUpdateStart = 0x0F;
constexpr unsigned char kCmdUpdateData = 0x10;
constexpr unsigned char kCmdUpdateEnd = 0x12;

constexpr int kHidUpdateMinFw = 370;
constexpr int kBleUpdateMaxOldFw = 381;  // this version and older cannot update over BLE

constexpr int kHidBlockMax = static_cast<int>(sizeof(_NKR_HID_FILE_BUF::buf));
constexpr int kShortReportLen = 16;
constexpr int kShortPieceMax = kShortReportLen - 5;  // data fills bytes 5-15
constexpr int kLongReportLen = 64;

constexpr int kBleBlockMax = static_cast<int>(sizeof(_NKR_BLE_FILE_BUF::data));
// The BLE exchange needs a payload of at least 4 bytes.
constexpr int kBleBlockMin = 4;
constexpr unsigned char kBleStartSelector = 0x02;

}  // namespace

int CNKR::HIDStartUpdate()
{
    if (fwVersion < kHidUpdateMinFw) return NKR_ERROR_NOT_SUPPORTED;

    unsigned char cmd[kShortReportLen] = {};
    putHeader(cmd, kCmdUpdateStart);
    unsigned char answer[kAnswerBufLen] = {};
    int res = sendCMD(cmd, 4, true, answer);
    if (res != NKR_SUCCESS) return res;
    if (answer[3] == 0x01 && answer[4] == 0x00) return NKR_SUCCESS;

    NKR_LOG("Start Upgrade, err = %d. Outbuf[0-4] = 0x%02X, 0x%02X,0x%02X,0x%02X,0x%02X.", 0,
            answer[0], answer[1], answer[2], answer[3], answer[4]);
    return NKR_ERROR_BAD_STATE;
}

int CNKR::HIDWriteUpdateFile(const _NKR_HID_FILE_BUF& block)
{
    if (block.len < 1 || block.len > kHidBlockMax) return NKR_ERROR_BAD_LENGTH;

    int res = NKR_SUCCESS;
    if (m_iOutputReportLen > kShortReportLen) {
        // One report carries the whole block.
        unsigned char cmd[kLongReportLen] = {};
        putHeader(cmd, kCmdUpdateData);
        cmd[4] = static_cast<unsigned char>(block.len);
        std::memcpy(cmd + 5, block.buf, static_cast<size_t>(block.len));
        res = sendCMD(cmd, block.len + 5, false, nullptr);
    } else {
        for (int offset = 0; offset < block.len && res == NKR_SUCCESS; offset += kShortPieceMax) {
            int piece = std::min(kShortPieceMax, block.len - offset);
            unsigned char cmd[kShortReportLen] = {};
            putHeader(cmd, kCmdUpdateData);
            cmd[4] = static_cast<unsigned char>(piece);
            std::memcpy(cmd + 5, block.buf + offset, static_cast<size_t>(piece));
            res = sendCMD(cmd, kShortReportLen, false, nullptr);
        }
    }
    if (res != NKR_SUCCESS) NKR_LOG("USB Upgrade is interrupted!");
    return res;
}

int CNKR::HIDEndUpdate()
{
    unsigned char cmd[kShortReportLen] = {};
    putHeader(cmd, kCmdUpdateEnd);
    unsigned char answer[kAnswerBufLen] = {};
    int res = sendCMD(cmd, 4, true, answer);
    // The unit restarts into the new firmware as it answers, so a transfer
    // that breaks off here still means a completed update.
    if (res == NKR_ERROR_GENERAL || res == NKR_ERROR_REMOVED) return NKR_SUCCESS;

    NKR_LOG("End Upgrade, err = %d. Outbuf[0-7] = 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X, "
            "0x%02X, 0x%02X, 0x%02X.",
            res, answer[0], answer[1], answer[2], answer[3], answer[4], answer[5], answer[6],
            answer[7]);
    return res;
}

int CNKR::BLEStartUpdate(int size)
{
    if (fwVersion <= kBleUpdateMaxOldFw) return NKR_ERROR_NOT_SUPPORTED;

    CriSecLock lock(m_mutex);
    const auto total = static_cast<uint32_t>(size);
    std::vector<uint8_t> payload = {kMagic0,
                                    kMagic1,
                                    kBleStartSelector,
                                    static_cast<uint8_t>(total >> 24),
                                    static_cast<uint8_t>(total >> 16),
                                    static_cast<uint8_t>(total >> 8),
                                    static_cast<uint8_t>(total)};
    std::vector<uint8_t> answer;
    return bleSendData(BLEProtocol::CMD_EXTENDED, std::move(payload), true, answer);
}

int CNKR::BLEWriteUpdateFile(const _NKR_BLE_FILE_BUF& block)
{
    if (fwVersion <= kBleUpdateMaxOldFw) return NKR_ERROR_NOT_SUPPORTED;
    // Refused before sending: the exchange cannot carry fewer than 4 bytes,
    // and the record holds no more than 480.
    if (block.length < kBleBlockMin || block.length > kBleBlockMax) return NKR_ERROR_BAD_LENGTH;

    CriSecLock lock(m_mutex);
    std::vector<uint8_t> payload(block.data, block.data + block.length);
    std::vector<uint8_t> answer;
    int res = bleSendData(BLEProtocol::CMD_EXTENDED, std::move(payload), true, answer);
    if (res != NKR_SUCCESS) return res;

    // The unit acknowledges the length it took at answer offsets 3 and 4.
    if (answer.size() < 5) return NKR_ERROR_BAD_LENGTH;
    int accepted = (answer[3] << 8) | answer[4];
    return accepted == block.length ? NKR_SUCCESS : NKR_ERROR_BLE_LENGTH_MISMATCH;
}
