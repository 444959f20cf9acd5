// Commands of the battery-powered model and newer firmware: LED, shipping
// mode, stored error codes, power-off reason, battery block, and the
// error-clearing status exchange.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <vector>

#include "../log/Log.h"
#include "NKR.h"
#include "NKR_reply.h"

using namespace nkrcmd;

namespace {

constexpr unsigned char kSelStatus = 0x03;
constexpr unsigned char kSelError = 0x05;
constexpr unsigned char kSelPowerOff = 0x06;
constexpr unsigned char kSelBattery = 0x1E;
constexpr unsigned char kSelLed = 0x1F;
constexpr unsigned char kCmdControl = 0x01;
constexpr unsigned char kCmdShippingMode = 0x1F;
constexpr unsigned char kCmdSetLed = 0x20;
constexpr unsigned char kControlClearError = 0x0F;
constexpr unsigned char kStateError = 6;  // status byte 4 while the unit is in error

// The battery block's temperature byte holds degrees + 100, valid 60..187.
constexpr int kBatteryTempOffset = 100;
constexpr int kBatteryTempLow = 60;
constexpr int kBatteryTempHigh = 187;

SharedAnswer g_errorAnswer;
SharedAnswer g_powerOffAnswer;

// The code characters at answer bytes 4, 5 and 6: the first is shared.
void fillErrorCodes(const unsigned char* data, _NKR_ERROR_MSG* msg)
{
    std::snprintf(msg->MotorErrCode, sizeof msg->MotorErrCode, "%c%c", data[0], data[1]);
    std::snprintf(msg->BatteryErrCode, sizeof msg->BatteryErrCode, "%c%c", data[0], data[2]);
}

// A 3-character code field that the caller may have left unterminated.
std::string codeText(const char (&code)[3]) { return std::string(code, strnlen(code, 3)); }

unsigned bigEndian16(const unsigned char* p) { return (unsigned(p[0]) << 8) | p[1]; }

// The HID library's error text, narrowed to at most 239 characters.
std::string hidErrorText(hid_device* dev)
{
    char text[240] = {};
    const wchar_t* wide = dev ? hid_error(dev) : nullptr;
    if (wide != nullptr && std::wcstombs(text, wide, sizeof text - 1) == static_cast<size_t>(-1))
        text[0] = '\0';
    return text;
}

}  // namespace

int CNKR::setLEDState(bool on, bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    {
        CriSecLock lock(m_mutex);
        m_bLedOn = on;  // recorded even when the transfer fails
    }

    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdSetLed);
    cmd[4] = on ? 1 : 0;
    return sendWithoutAnswer(*this, cmd, 5, ble);
}

int CNKR::getLEDState(bool* on, bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    if (on == nullptr) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelLed);

    bool state;
    if (ble) {
        std::vector<uint8_t> answer;
        int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, sizeof cmd), true, answer);
        if (res != NKR_SUCCESS) return res;
        if (answer.size() <= kDataOffset) return NKR_ERROR_GENERAL;
        state = answer[kDataOffset] != 0;
    } else {
        unsigned char answer[kAnswerBufLen] = {};
        int res = sendCMD(cmd, sizeof cmd, true, answer);
        if (res != NKR_SUCCESS) return res;
        state = answer[kDataOffset] != 0;
    }
    {
        // Bluetooth calls take no slot lock: two readers may store at once.
        CriSecLock lock(m_mutex);
        m_bLedOn = state;
    }
    *on = state;
    return NKR_SUCCESS;
}

int CNKR::setShippingMode(bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdShippingMode);
    cmd[4] = 0x00;
    return sendWithoutAnswer(*this, cmd, 5, ble);
}

int CNKR::getErrorCode(_NKR_ERROR_MSG* msg, bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    if (msg == nullptr) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelError);

    int res;
    if (ble) {
        std::vector<uint8_t> answer;
        res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res == NKR_SUCCESS) {
            if (!bleHasStatus(answer)) return NKR_ERROR_GENERAL;
            if (bleStatusOk(answer) && answer.size() > 6) fillErrorCodes(&answer[kDataOffset], msg);
        }
    } else {
        res = readIntoSharedAnswer(*this, cmd, g_errorAnswer, [&](const unsigned char* answer) {
            if (strnlen(reinterpret_cast<const char*>(answer), kAnswerLen) > 6)
                fillErrorCodes(answer + kDataOffset, msg);
        });
    }
    NKR_LOG("The NKR Motor Error Code is : %s ,Battery Error Code is : %s",
            codeText(msg->MotorErrCode).c_str(), codeText(msg->BatteryErrCode).c_str());
    return res;
}

int CNKR::getPowerOffReason(int* reason, bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    if (reason == nullptr) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelPowerOff);

    int res;
    if (ble) {
        std::vector<uint8_t> answer;
        res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res == NKR_SUCCESS) {
            if (!bleHasStatus(answer)) return NKR_ERROR_GENERAL;
            if (bleStatusOk(answer)) {
                if (answer.size() <= kDataOffset) return NKR_ERROR_GENERAL;
                *reason = answer[kDataOffset];
            }
        }
    } else {
        res = readIntoSharedAnswer(*this, cmd, g_powerOffAnswer,
                                   [&](const unsigned char* answer) { *reason = answer[kDataOffset]; });
    }
    // Written after a failed exchange too, from whatever reason then holds.
    NKR_LOG("The NKR Pro Power off is : %s", *reason == 0 ? "normal" : "shuipping mode");
    return res;
}

int CNKR::getBatteryInfo(_NKR_BATTERY_INFO* info, bool ble)
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    if (info == nullptr) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelBattery);

    if (ble) {
        std::vector<uint8_t> answer;
        int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, sizeof cmd), true, answer);
        if (res != NKR_SUCCESS) return res;
        if (answer.size() <= kDataOffset) return parseBatteryInfo(nullptr, 0, info);
        std::vector<uint8_t> block(answer.begin() + kDataOffset, answer.end());
        return parseBatteryInfo(block.data(), static_cast<int>(block.size()), info);
    }
    unsigned char answer[kAnswerBufLen] = {};
    int res = sendCMD(cmd, sizeof cmd, true, answer);
    if (res != NKR_SUCCESS) return res;
    return parseBatteryInfo(answer + kDataOffset, kAnswerLen, info);
}

int CNKR::parseBatteryInfo(const unsigned char* data, int len, _NKR_BATTERY_INFO* info)
{
    if (data == nullptr || info == nullptr) return NKR_ERROR_INVALID_VALUE;
    if (len <= 10) return NKR_ERROR_BAD_LENGTH;

    // A block of exactly 11 bytes is decoded although the charge voltage's low
    // byte (byte 11) lies just past it: that byte then counts as 0.
    unsigned chargeVolLow = len > 11 ? data[11] : 0;
    int result = NKR_SUCCESS;
    info->battery_temp = static_cast<int>(data[1]) - kBatteryTempOffset;
    info->battery_vol = static_cast<int>(bigEndian16(data + 2));
    info->battery_charge_curr = static_cast<int>(bigEndian16(data + 4));
    info->battery_percentage = data[6];
    info->battery_discharge_curr = static_cast<int>(bigEndian16(data + 7));
    info->battery_health = data[9];
    info->battery_charge_vol = static_cast<int>((unsigned(data[10]) << 8) | chargeVolLow);
    info->reserved = 0;

    if (data[1] < kBatteryTempLow || data[1] > kBatteryTempHigh) {
        NKR_LOG("battery_temp(-40.0 ~ 87.5):%d", info->battery_temp);
        *info = _NKR_BATTERY_INFO{-1, -1, -1, -1, -1, -1, -1, -1};
        result = NKR_ERROR_BATTERY_RANGE;
    }
    NKR_LOG("battery_temp:%d, battery_vol:%d, battery_charge_curr:%d, battery_percentage:%d, "
            "battery_discharge_curr:%d, battery_health:%d, battery_charge_vol:%d",
            info->battery_temp, info->battery_vol, info->battery_charge_curr,
            info->battery_percentage, info->battery_discharge_curr, info->battery_health,
            info->battery_charge_vol);
    return result;
}

int CNKR::clearError()
{
    if (!bIsBleControl && (!m_bOpen || m_hDev == nullptr)) return NKR_ERROR_INVALID_ID;
    if (pszOutBuf == nullptr || pszInBuf == nullptr) return NKR_ERROR_GENERAL;

    int res;
    bool echoOk;
    std::string errText;
    {
        CriSecLock lock(m_mutex);
        std::memset(pszOutBuf, 0, NKR_BUF_SIZE);
        putReadCommand(pszOutBuf, kSelStatus);

        if (bIsBleControl) {
            std::vector<uint8_t> answer;
            return bleSendData(BLEProtocol::CMD_DEVICE, blePayload(pszOutBuf, 5), true, answer);
        }

        const size_t outLen = static_cast<size_t>(std::clamp(m_iOutputReportLen, 0, NKR_BUF_SIZE));
        const size_t inLen = static_cast<size_t>(std::clamp(m_iInputReportLen, 0, NKR_BUF_SIZE));
        res = hid_send_feature_report(m_hDev, pszOutBuf, outLen);
        if (res >= 0) {
            std::memset(pszInBuf, 0, inLen);
            pszInBuf[0] = kReplyReportId;
            res = hid_get_feature_report(m_hDev, pszInBuf, inLen);
        }

        // A failed send leaves the previous status in pszInBuf; it is judged
        // like a fresh one.
        echoOk = pszInBuf[1] == kMagic0 && pszInBuf[2] == kMagic1 && pszInBuf[3] == kSelStatus;
        if (!echoOk) {
            NKR_LOG("response error [1-3]: %02x %02x %02x", pszInBuf[1], pszInBuf[2], pszInBuf[3]);
            errText = hidErrorText(m_hDev);  // the handle may be replaced once unlocked
        } else if (m_bClearErr && pszInBuf[4] == kStateError) {
            putHeader(pszOutBuf, kCmdControl);
            pszOutBuf[4] = kControlClearError;
            res = hid_send_feature_report(m_hDev, pszOutBuf, outLen);
        }
    }
    if (!echoOk) {
        NKR_LOG("HID Err: %s", errText.c_str());
        HIDUpdateStatus(true);
        return NKR_ERROR_GENERAL;
    }
    return handleReportErr(res);
}
