// Motion: the control frame that carries every motion and setting change,
// and the commands built on it.
#include <vector>

#include "../log/Log.h"
#include "NKR.h"
#include "Sleep.h"

namespace {
// Above this firmware bytes 6-7 carry position high bytes instead of the speed.
constexpr int kFwLastNarrow = 335;
constexpr int kControlFrameLen = 16;
// Time the unit needs to start a move before it takes another command.
constexpr unsigned kMoveStartPauseUs = 200000;
}  // namespace

int CNKR::sendControl(int iReset, bool ble)
{
    if (pszOutBuf == nullptr) return NKR_ERROR_GENERAL;
    unsigned char* f = pszOutBuf;
    f[0] = 0x03;
    f[1] = 0x7E;
    f[2] = 0x5A;
    f[3] = 0x03;
    f[4] = static_cast<unsigned char>(m_iMoveState.load());
    f[5] = static_cast<unsigned char>(iBacklash);
    if (fwVersion > kFwLastNarrow) {
        f[6] = static_cast<unsigned char>(maxstep >> 16);
        f[7] = static_cast<unsigned char>(step >> 16);
    } else {
        f[6] = static_cast<unsigned char>(speed >> 8);
        f[7] = static_cast<unsigned char>(speed);
    }
    f[8] = static_cast<unsigned char>(step >> 8);
    f[9] = static_cast<unsigned char>(step);
    f[10] = static_cast<unsigned char>(iReset);
    // Bytes 11-12 are left as the buffer holds them.
    f[13] = static_cast<unsigned char>((cMaxForce << 4) | (bReverse ? 0x02 : 0) | (bBeep ? 0x01 : 0));
    f[14] = static_cast<unsigned char>(maxstep >> 8);
    f[15] = static_cast<unsigned char>(maxstep);

    NKR_LOG("fwVersion:%d, step:%d, maxstep:%d, cMaxForce:%d, enabled:%d, iReset:%d, bBeep:%d, bReverse:%d, "
            "pszOutBuf[13]:%x, bIsBleControl:%d",
            fwVersion, step, maxstep, static_cast<int>(cMaxForce), m_iMoveState.load(), iReset,
            static_cast<int>(bBeep), static_cast<int>(bReverse), static_cast<unsigned>(f[13]),
            static_cast<int>(ble));

    if (!ble) return sendCMD(pszOutBuf, kControlFrameLen, false, nullptr);

    // Over BLE the same bytes travel without the report id.
    std::vector<uint8_t> payload(f + 1, f + kControlFrameLen);
    NKR_LOG("sendControl input:%02x, %02x", payload[2], payload[3]);
    std::vector<uint8_t> unused;
    const int rc = bleSendData(BLEProtocol::CMD_DEVICE, payload, false, unused);
    if (rc != NKR_SUCCESS) NKR_LOG("sendControl bleSendData err:%d", rc);
    return rc;
}

namespace {
// Positions are clamped into 0..limit, never refused.
int clampStep(int value, int limit)
{
    if (value > limit) return limit;
    if (value < 0) return 0;
    return value;
}
}  // namespace

int CNKR::SetStep(int iStep, bool ble)
{
    if (!linkUp()) return NKR_ERROR_INVALID_ID;
    if (m_iMoveState.load() == 1) return NKR_ERROR_MOVING;
    CriSecLock lock(m_mutex);
    // Set first so the frame carries run = 1.
    m_iMoveState = 1;
    step = clampStep(iStep, m_iStepLimit);
    NKR_LOG("SetStep move to step: %d, speed: %d", step, speed);
    const int rc = sendControl(0, ble);
    // Still holding the lock: no other command reaches the unit while it starts.
    if (rc == NKR_SUCCESS) nkr::sleepMicros(kMoveStartPauseUs);
    return rc;
}

int CNKR::resetStep(int iStep, bool ble)
{
    if (!linkUp()) return NKR_ERROR_INVALID_ID;
    if (m_iMoveState.load() == 1) return NKR_ERROR_MOVING;
    CriSecLock lock(m_mutex);
    step = clampStep(iStep, m_iStepLimit);
    return sendControl(1, ble);
}

int CNKR::SetSpeed(int iSpeed)
{
    if (!linkUp()) return NKR_ERROR_INVALID_ID;
    if (m_iMoveState.load() == 1) return NKR_ERROR_MOVING;
    CriSecLock lock(m_mutex);
    speed = iSpeed;
    return sendControl(0, false);
}

int CNKR::stopMove(bool ble)
{
    const int rc = clearError();
    if (rc != NKR_SUCCESS) {
        NKR_LOG("stopMove clearError failed");
        return rc;
    }
    CriSecLock lock(m_mutex);
    m_iMoveState = 0;
    return sendControl(0, ble);
}
