// A unit that goes away while connected (unplugged, out of Bluetooth range):
// a move under way fails, the properties turn Alert, and the driver looks for
// the same unit (same serial number) every second until it is back, then
// restores its position and settings. One message when it goes, one when it
// returns.
#include "NKR_focuser.h"
#include "error_text.h"
#include "nkr_focuser.h"
#include "unit_identity.h"

namespace {

// Transfer failures in a row that mean the unit is gone; the codes below say
// so at once.
constexpr int kFailuresBeforeLost = 3;

bool meansGone(int rc)
{
    return rc == NKR_ERROR_REMOVED || rc == NKR_ERROR_INVALID_ID || rc == NKR_ERROR_CLOSED ||
           rc == NKR_ERROR_BLE_NOT_OPEN;
}

constexpr int kOn = INDI::BaseDevice::INDI_ENABLED;

}  // namespace

void NkrFocuser::pollFailed(int rc)
{
    if (!m_pollFailed)
        LOGF_WARN("Reading the focuser failed: %s (%d).", nkrindi::errorText(rc), rc);
    m_pollFailed = true;
    if (meansGone(rc) || ++m_failedPolls >= kFailuresBeforeLost) loseUnit();
}

void NkrFocuser::pollSucceeded()
{
    if (m_pollFailed) LOG_INFO("The focuser answers again.");
    m_pollFailed = false;
    m_failedPolls = 0;
}

void NkrFocuser::loseUnit()
{
    if (m_mover == Mover::Host)
        LOGF_ERROR("The move to %d failed: the focuser went away at %d.", m_target, m_lastSeenPosition);
    // The last position read, even if the progress throttle held it back.
    FocusAbsPosN[0].value = m_lastPosition = m_lastSeenPosition;
    if (m_mover != Mover::None) finishMove(IPS_ALERT);
    m_lost = true;
    m_lostBle = m_unit.overBle();
    m_lostSerial = m_unit.serial();
    m_knownPosition = m_lastSeenPosition;
    m_lastReconnectTry = std::chrono::steady_clock::now();
    m_unit.lose();
    LOGF_ERROR("The focuser%s%s is gone (unplugged, switched off or out of range). The driver "
               "reconnects to it when it comes back.",
               m_lostSerial.empty() ? "" : " ", m_lostSerial.c_str());

    FocusAbsPosNP.s = IPS_ALERT;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    m_temperatureNP.setState(IPS_ALERT);
    m_temperatureNP.apply();
    m_infoTP.setState(IPS_ALERT);
    m_infoTP.apply();
}

void NkrFocuser::tryReconnect()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastReconnectTry < kReconnectInterval) return;
    m_lastReconnectTry = now;
    const std::string ble = nkrindi::trimmed(m_unitSelectTP[kBleSelector].getText());
    const std::string usb = m_lostSerial.empty() ? std::string(m_unitSelectTP[kUsbSelector].getText()) : m_lostSerial;
    const std::string problem = m_lostBle ? m_unit.openBle(ble, getDeviceName(), true)
                                          : m_unit.openUsb(usb, getDeviceName(), true);
    if (!problem.empty()) {
        LOGF_DEBUG("Still waiting for the focuser: %s.", problem.c_str());
        return;
    }
    m_lost = false;
    m_pollFailed = false;
    m_failedPolls = 0;
    restoreAfterReturn();
    LOGF_INFO("The focuser%s%s is back on %s; position %d and its settings are restored.",
              m_lostSerial.empty() ? "" : " ", m_lostSerial.c_str(), m_unit.description().c_str(),
              static_cast<int>(FocusAbsPosN[0].value));
}

void NkrFocuser::restoreAfterReturn()
{
    const int id = m_unit.id();
    // A unit that lost power starts from a fixed position and forgets its
    // settings: give it back what the driver knew.
    int reported = 0;
    if (m_knownPosition >= 0 && NKRGetPosition(id, &reported) == NKR_SUCCESS &&
        reported != m_knownPosition)
        succeeded(NKRResetPostion(id, m_knownPosition), "Restoring the position");
    succeeded(NKRSetMaxStep(id, static_cast<int>(FocusMaxPosN[0].value)), "Restoring the maximum");
    succeeded(NKRSetBacklash(id, FocusBacklashS[INDI_ENABLED].s == ISS_ON ? m_backlashSteps : 0),
              "Restoring the backlash");
    succeeded(NKRSetReverse(id, FocusReverseS[INDI_ENABLED].s == ISS_ON), "Restoring the direction");
    succeeded(NKRSetBeep(id, m_beepSP[kOn].getState() == ISS_ON), "Restoring the beep");
    succeeded(NKRSetMaxForce(id, static_cast<int>(m_forceNP[0].getValue())), "Restoring the force");
    if (m_hasLed) succeeded(NKRSetLedState(id, m_ledSP[kOn].getState() == ISS_ON), "Restoring the LED");

    readMotorSettings();
    IDSetNumber(&FocusAbsPosNP, nullptr);
    IDSetNumber(&FocusMaxPosNP, nullptr);
    m_infoTP[kLink].setText(m_unit.description());
    m_infoTP.setState(IPS_OK);
    m_infoTP.apply();
    m_temperatureNP.setState(IPS_IDLE);  // the next reading shows it again
    pollTemperature();
}
