// Identity commands: serial number, alias, firmware version, model type,
// Bluetooth name, and the two factory commands.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "../log/Log.h"
#include "NKR.h"
#include "NKR_reply.h"

using namespace nkrcmd;

namespace {

constexpr unsigned char kSelVersion = 0x04;
constexpr unsigned char kSelSerial = 0x0C;
constexpr unsigned char kSelAlias = 0x0D;
constexpr unsigned char kCmdSetSerial = 0x0C;
constexpr unsigned char kCmdSetAlias = 0x0D;
constexpr unsigned char kCmdBleName = 0x1E;
constexpr unsigned char kCmdFactoryMode = 0x22;

constexpr int kSerialLen = 8;
constexpr int kMaxWriteLen = 12;    // serial and alias fill bytes 4-15
constexpr int kMaxBleNameLen = 11;  // the name fills bytes 5-15
constexpr size_t kTypeOffset = 8;   // model text in the version answer

SharedAnswer g_serialAnswer;
SharedAnswer g_aliasAnswer;

// Older firmware sends the serial as twelve bytes mixing half-bytes and whole
// bytes (answer bytes 4-15); this packs them back into eight.
void unpackSerial(const unsigned char* a, unsigned char* s)
{
    auto b = [a](int i) { return static_cast<unsigned>(a[i]); };
    s[0] = static_cast<unsigned char>((b(4) << 4) + b(5));
    s[1] = static_cast<unsigned char>((b(6) << 4) + b(7));
    s[2] = static_cast<unsigned char>((b(8) << 4) + b(9));
    s[3] = static_cast<unsigned char>((b(10) << 4) + (b(11) >> 4));
    s[4] = static_cast<unsigned char>((b(11) << 4) + (b(12) >> 4));
    s[5] = static_cast<unsigned char>((b(12) << 4) + (b(13) >> 4));
    s[6] = static_cast<unsigned char>((b(13) << 4) + (b(14) >> 4));
    s[7] = static_cast<unsigned char>((b(14) << 4) + b(15));
}

// A caller's text of at most len bytes, which need not be terminated.
std::string boundedText(const char* text, int len)
{
    return std::string(text, strnlen(text, static_cast<size_t>(len)));
}

}  // namespace

int CNKR::getSerialNumber(unsigned char* out, int len, bool ble)
{
    if (!m_bCanSerial) {
        NKRDbgPrint("getSerialNumber", "do not support get SerialNumber\n");
        return NKR_ERROR_NOT_SUPPORTED;
    }
    if (out == nullptr || len < 0) return NKR_ERROR_INVALID_VALUE;
    std::memset(out, 0, static_cast<size_t>(len));

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelSerial);

    if (ble) {
        std::vector<uint8_t> answer;
        int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res != NKR_SUCCESS) return res;
        if (!bleHasStatus(answer)) return NKR_ERROR_GENERAL;
        if (bleStatusOk(answer)) {
            if (answer.size() < kDataOffset + static_cast<size_t>(len)) return NKR_ERROR_GENERAL;
            std::memcpy(out, answer.data() + kDataOffset, static_cast<size_t>(len));
        }
        return res;
    }

    return readIntoSharedAnswer(*this, cmd, g_serialAnswer, [&](const unsigned char* answer) {
        unsigned char serial[kSerialLen];
        if (m_bCanFactory)
            std::memcpy(serial, answer + kDataOffset, kSerialLen);
        else
            unpackSerial(answer, serial);
        std::memcpy(out, serial, static_cast<size_t>(std::min(len, kSerialLen)));
    });
}

int CNKR::getAlias(char* out, int len, bool ble)
{
    if (!m_bCanSerial) {
        NKRDbgPrint("getAlias", "does not support alias\n");
        return NKR_ERROR_NOT_SUPPORTED;
    }
    if (out == nullptr || len < 0) return NKR_ERROR_INVALID_VALUE;
    std::memset(out, 0, static_cast<size_t>(len));

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelAlias);

    int res;
    if (ble) {
        std::vector<uint8_t> answer;
        res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res == NKR_SUCCESS) {
            if (!bleHasStatus(answer)) return NKR_ERROR_GENERAL;
            if (bleStatusOk(answer) && answer.size() > kDataOffset) {
                size_t n = std::min(static_cast<size_t>(len), answer.size() - kDataOffset);
                std::memcpy(out, answer.data() + kDataOffset, n);
            }
        }
    } else {
        res = readIntoSharedAnswer(*this, cmd, g_aliasAnswer, [&](const unsigned char* answer) {
            int n = std::min(len, answerTextLen(answer));
            std::memcpy(out, answer + kDataOffset, static_cast<size_t>(n));
        });
    }
    NKRDbgPrint("getAlias", "The NKR Alias is : %s ", boundedText(out, len).c_str());
    return res;
}

int CNKR::setAlias(const unsigned char* data, int len, bool ble)
{
    if (!m_bCanSerial) return NKR_ERROR_NOT_SUPPORTED;
    if (len < 0 || len > kMaxWriteLen || (data == nullptr && len > 0))
        return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdSetAlias);
    if (len > 0) std::memcpy(cmd + 4, data, static_cast<size_t>(len));

    if (!ble) return sendCMD(cmd, sizeof cmd, false, nullptr);

    std::vector<uint8_t> answer;
    int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, sizeof cmd), true, answer);
    if (res != NKR_SUCCESS) NKR_LOG("set alias failed. err:%d", res);
    return res;
}

int CNKR::getFwVer(unsigned char* major, unsigned char* minor, unsigned char* build, bool ble)
{
    if (major == nullptr || minor == nullptr || build == nullptr) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelVersion);

    if (ble) {
        std::vector<uint8_t> answer;
        int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res != NKR_SUCCESS) return res;
        if (answer.size() < kDataOffset + 3) return NKR_ERROR_GENERAL;
        *major = answer[4];
        *minor = answer[5];
        *build = answer[6];
    } else {
        unsigned char answer[kAnswerBufLen] = {};
        int res = sendCMD(cmd, 5, true, answer);
        if (res != NKR_SUCCESS) return res;
        *major = answer[4];
        *minor = answer[5];
        *build = answer[6];
    }
    NKR_LOG("*major:%d,*minor:%d,*build:%d", *major, *minor, *build);
    return NKR_SUCCESS;
}

int CNKR::getType(_NKR_TYPE* type, bool ble)
{
    if (!m_bCanSerial) return NKR_ERROR_NOT_SUPPORTED;
    if (type == nullptr) return NKR_ERROR_INVALID_VALUE;
    std::memset(type, 0, sizeof *type);

    unsigned char cmd[kAnswerLen] = {};
    putReadCommand(cmd, kSelVersion);

    if (ble) {
        std::vector<uint8_t> answer;
        int res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5), true, answer);
        if (res != NKR_SUCCESS) return res;
        if (answer.size() < kTypeOffset) return NKR_ERROR_GENERAL;
        size_t n = std::min(answer.size() - kTypeOffset, sizeof type->Type - 1);
        std::memcpy(type->Type, answer.data() + kTypeOffset, n);
    } else {
        unsigned char answer[kAnswerBufLen] = {};
        int res = sendCMD(cmd, 5, true, answer);
        if (res != NKR_SUCCESS) return res;
        std::memcpy(type->Type, answer + kTypeOffset, kAnswerLen - kTypeOffset);
    }
    {
        CriSecLock lock(m_mutex);  // the controls list reads m_strType
        m_strType = type->Type;
    }
    NKR_LOG("NKR Type:%s", type->Type);
    return NKR_SUCCESS;
}

int CNKR::getBLEName(char* out, int len)
{
    if (!m_bCanSerial) {
        NKRDbgPrint("getBLEName", "does not support get nkr ble name");
        return NKR_ERROR_NOT_SUPPORTED;
    }
    if (out == nullptr || len < 1) return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdBleName);
    cmd[4] = 0x01;  // read
    unsigned char answer[kAnswerBufLen] = {};
    int res = sendCMD(cmd, 5, true, answer);

    // The name is cut to len - 1 characters so that it always ends in a
    // terminator inside the caller's buffer.
    std::memset(out, 0, static_cast<size_t>(len));
    if (res == NKR_SUCCESS) {
        std::string unitPart(reinterpret_cast<const char*>(answer + kDataOffset),
                             static_cast<size_t>(answerTextLen(answer)));
        std::string name;
        {
            CriSecLock lock(m_mutex);
            name = m_strType + "_" + unitPart;
        }
        std::memcpy(out, name.data(), std::min(name.size(), static_cast<size_t>(len - 1)));
    }
    NKRDbgPrint("getBLEName", "The NKR ble name is : %s", out);
    return res;
}

int CNKR::setBLEName(const char* name, int len, bool ble)
{
    if (!m_bCanSerial) return NKR_ERROR_NOT_SUPPORTED;
    if (len > kMaxBleNameLen || len < 0) {
        NKR_LOG("set nkr ble name len invalid. len:%d", len);
        return NKR_ERROR_INVALID_VALUE;
    }
    if (name == nullptr && len > 0) return NKR_ERROR_INVALID_VALUE;

    std::string text = len > 0 ? boundedText(name, len) : std::string();
    NKR_LOG("set name is :%s", text.c_str());

    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdBleName);
    cmd[4] = 0x00;  // write
    if (len > 0) std::memcpy(cmd + 5, name, static_cast<size_t>(len));

    int res;
    if (ble) {
        std::vector<uint8_t> answer;
        res = bleSendData(BLEProtocol::CMD_DEVICE, blePayload(cmd, 5 + static_cast<size_t>(len)),
                          false, answer);
    } else {
        res = sendCMD(cmd, sizeof cmd, false, nullptr);
    }
    if (res != NKR_SUCCESS) NKR_LOG("set nkr ble name failed. err:%d", res);
    return res;
}

int CNKR::setSerialNumber(const unsigned char* data, int len)
{
    if (!m_bCanSerial) return NKR_ERROR_NOT_SUPPORTED;
    if (len < 0 || len > kMaxWriteLen || (data == nullptr && len > 0))
        return NKR_ERROR_INVALID_VALUE;

    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdSetSerial);
    if (len > 0) std::memcpy(cmd + 4, data, static_cast<size_t>(len));
    return sendCMD(cmd, sizeof cmd, false, nullptr);
}

int CNKR::setFactoryMode()
{
    if (!m_bCanFactory) return NKR_ERROR_NOT_SUPPORTED;
    unsigned char cmd[kAnswerLen] = {};
    putHeader(cmd, kCmdFactoryMode);
    cmd[4] = 0x01;
    cmd[5] = 0x00;
    return sendCMD(cmd, 6, false, nullptr);
}
