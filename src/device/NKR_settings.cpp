// Motor settings: each setter stores its field and sends the whole control
// frame; the unit reports them back in the status.
#include "../log/Log.h"
#include "NKR.h"

namespace {
constexpr unsigned kMaxBacklash = 255;
// Frame modes of sendControl.
constexpr int kModePlain = 0;
constexpr int kModeStoreMax = 2;

// The checks every setter shares: link up, no move under way.
int settingRefused(const CNKR& dev)
{
    if (!dev.linkUp()) return NKR_ERROR_INVALID_ID;
    if (dev.m_iMoveState.load() == 1) return NKR_ERROR_MOVING;
    return NKR_SUCCESS;
}
}  // namespace

int CNKR::setBacklash(int backlash, bool ble)
{
    // Unsigned, so a negative backlash is refused as well.
    if (static_cast<unsigned>(backlash) > kMaxBacklash) return NKR_ERROR_INVALID_VALUE;
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    iBacklash = backlash;
    NKR_LOG("Before sendControl iBacklash:%d", iBacklash);
    return sendControl(kModePlain, ble);
}

int CNKR::setMaxStep(int maxStep, bool ble)
{
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    if (maxStep > m_iStepLimit) maxStep = m_iStepLimit;
    else if (maxStep < 0) maxStep = 0;
    maxstep = maxStep;
    return sendControl(kModeStoreMax, ble);
}

int CNKR::setBeep(bool on, bool ble)
{
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    bBeep = on;
    return sendControl(kModePlain, ble);
}

int CNKR::setReverse(bool on, bool ble)
{
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    bReverse = on;
    return sendControl(kModePlain, ble);
}

int CNKR::setMaxForce(int force, bool ble)
{
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    // Only the low byte is kept; the frame carries its low nibble.
    cMaxForce = static_cast<int8_t>(static_cast<uint8_t>(force));
    return sendControl(kModePlain, ble);
}

int CNKR::saveFWConf()
{
    if (int rc = settingRefused(*this)) return rc;
    CriSecLock lock(m_mutex);
    m_iMoveState = 0;
    return sendControl(kModePlain, false);
}

int CNKR::getStepRange(int* range, bool /*ble*/)
{
    if (range == nullptr) return NKR_ERROR_INVALID_VALUE;
    *range = m_iStepLimit;
    return NKR_SUCCESS;
}
