// Status report: one exchange that refreshes every cached member, and the
// getters that read one member after it.
#include <algorithm>
#include <cstring>

#include "NKR.h"

namespace {
// Firmware from which positions are 24-bit and the speed is no longer reported.
constexpr int kFwWidePos = 336;
// On thermistor firmware a raw word in 1..341 means a hand controller is
// plugged into the sensor input.
constexpr unsigned kHandControlRawMax = 341;

int be16(const unsigned char* p) { return (p[0] << 8) | p[1]; }
}  // namespace

int CNKR::getParams(bool ble)
{
    std::vector<uint8_t> answer;
    if (ble) {
        const int rc = bleSendData(BLEProtocol::CMD_DEVICE, {0x7E, 0x5A, 0x02, 0x03}, true, answer);
        NKRDbgPrint("getParams", "bleSendData is OK");
        if (rc != NKR_SUCCESS) return rc;
        NKRDbgPrint("getParams", "getParams pszInBuf is %p", static_cast<void*>(pszInBuf));
        if (pszInBuf == nullptr) return NKR_ERROR_BAD_LENGTH;
    } else {
        // clearError performs the HID status exchange into pszInBuf.
        const int rc = clearError();
        if (rc != NKR_SUCCESS) return rc;
        if (pszInBuf == nullptr) return NKR_ERROR_BAD_LENGTH;
    }

    CriSecLock lock(m_mutex);
    if (ble) {
        // The BLE answer is laid into the positions of the HID reply. A short
        // answer leaves the bytes after it as the last report left them; only
        // an answer longer than the buffer is cut.
        // A pairing notification ends the exchange with success and no
        // answer at all: then nothing is laid over the buffer.
        std::memset(pszInBuf, 0, 4);
        if (!answer.empty())
            std::memcpy(pszInBuf, answer.data(), std::min<size_t>(answer.size(), NKR_BUF_SIZE));
    }
    const unsigned char* in = pszInBuf;
    m_iMoveState = in[4];
    iBacklash = in[5];
    if (fwVersion < kFwWidePos) {
        speed = be16(in + 6);
        step = be16(in + 8);
        maxstep = be16(in + 14);
    } else {
        speed = 0;
        step = (in[7] << 16) | be16(in + 8);
        maxstep = (in[6] << 16) | be16(in + 14);
    }
    m_iTempRaw = be16(in + 11);
    const unsigned char flags = in[13];
    bBeep = (flags & 0x01) != 0;
    bReverse = (flags & 0x02) != 0;
    m_bHandMoving = (flags & 0x04) != 0;
    m_bHandControl = (flags & 0x08) != 0;
    cMaxForce = static_cast<int8_t>(flags >> 4);
    m_bStatusRead = true;
    if (step == 0) NKRDbgPrint("getParams", "getParams ===step:%d speed:%d===\n", step, speed);
    return NKR_SUCCESS;
}

namespace {
// Refreshes the status, then copies one cached member under the device lock.
template <typename T, typename Read>
int readAfterStatus(CNKR& dev, T* out, bool ble, Read read)
{
    if (out == nullptr) return NKR_ERROR_INVALID_VALUE;
    // Held across the read and the copy: the caller gets the value of this
    // status report, and the (recursive) lock is taken once instead of twice.
    CriSecLock lock(dev.m_mutex);
    const int rc = dev.getParams(ble);
    if (rc != NKR_SUCCESS) return rc;
    *out = read();
    return NKR_SUCCESS;
}
}  // namespace

int CNKR::getSpeed(int* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return speed; });
}

int CNKR::getStep(int* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return step; });
}

int CNKR::getBeep(bool* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return bBeep; });
}

int CNKR::getReverse(bool* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return bReverse; });
}

int CNKR::getBacklash(int* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return iBacklash; });
}

int CNKR::getMaxStep(int* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return maxstep; });
}

int CNKR::getMaxForce(int* out, bool ble)
{
    return readAfterStatus(*this, out, ble, [this] { return static_cast<int>(cMaxForce); });
}

int CNKR::isHandControl(bool* hand, bool ble)
{
    return readAfterStatus(*this, hand, ble, [this] {
        if (!m_bThermistor) return m_bHandControl;
        return static_cast<unsigned>(m_iTempRaw) - 1u < kHandControlRawMax;
    });
}

int CNKR::isMoving(bool* moving, bool* handMoving, bool ble)
{
    return readAfterStatus(*this, moving, ble, [this, handMoving] {
        if (handMoving != nullptr) *handMoving = m_bHandMoving;
        return m_iMoveState.load() >= 1 ? true : m_bHandMoving;
    });
}
