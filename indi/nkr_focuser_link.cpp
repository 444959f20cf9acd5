// A unit that goes away while connected (unplugged, out of Bluetooth range):
// a move under way fails, the properties turn Alert, and the driver looks for
// the same unit (same serial number, or Bluetooth address) with the host's
// back-off until it is back, then restores its position and settings. One
// message when it goes, one when it returns. What "gone" means is the host
// layer's rule, the same in every front-end.
#include "NKR_focuser.h"
#include "nkr_focuser.h"

namespace {

constexpr int kOn = INDI::BaseDevice::INDI_ENABLED;

}  // namespace

void NkrFocuser::pollFailed(int rc)
{
    if (!m_pollFailed) LOGF_WARN("Reading the focuser failed: %s.", nkrhost::formatError(rc).c_str());
    m_pollFailed = true;
    if (m_unit.unit().noteResult(rc)) loseUnit();
}

void NkrFocuser::pollSucceeded()
{
    if (m_pollFailed) LOG_INFO("The focuser answers again.");
    m_pollFailed = false;
    m_unit.unit().noteResult(NKR_SUCCESS);
}

void NkrFocuser::loseUnit()
{
    if (m_lost) return;
    if (m_mover == Mover::Host)
        LOGF_ERROR("The move to %d failed: the focuser went away at %d.", m_target, m_lastSeenPosition);
    // The last position read, even if the progress throttle held it back.
    FocusAbsPosN[0].value = m_lastPosition = m_lastSeenPosition;
    if (m_mover != Mover::None) finishMove(IPS_ALERT);
    m_lost = true;
    m_knownPosition = m_lastSeenPosition;
    const std::string serial = m_unit.serial();
    LOGF_ERROR("The focuser%s%s is gone (unplugged, switched off or out of range). The driver "
               "reconnects to it when it comes back.",
               serial.empty() ? "" : " ", serial.c_str());

    FocusAbsPosNP.s = IPS_ALERT;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    m_temperatureNP.setState(IPS_ALERT);
    m_temperatureNP.apply();
    m_infoTP.setState(IPS_ALERT);
    m_infoTP.apply();
}

void NkrFocuser::tryReconnect()
{
    if (!m_unit.reconnectDue()) return;
    const std::string problem = m_unit.reconnect();
    if (!problem.empty()) {
        LOGF_DEBUG("Still waiting for the focuser: %s.", problem.c_str());
        return;
    }
    m_lost = false;
    m_pollFailed = false;
    restoreAfterReturn();
    const std::string serial = m_unit.serial();
    LOGF_INFO("The focuser%s%s is back on %s; position %d and its settings are restored.",
              serial.empty() ? "" : " ", serial.c_str(), m_unit.description().c_str(),
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
    succeeded(m_unit.unit().setMaximum(static_cast<long long>(FocusMaxPosN[0].value)));
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

void NkrFocuser::followHostSettings()
{
    std::vector<std::string> log;
    m_unit.session().tick(std::chrono::steady_clock::now(), log);
    int maximum = 0;
    if (!m_unit.session().maximum(maximum).ok() || maximum == static_cast<int>(FocusMaxPosN[0].value)) return;
    FocusMaxPosN[0].value = maximum;
    FocusMaxPosNP.s = IPS_OK;
    IDSetNumber(&FocusMaxPosNP, "The maximum position is now %d (changed by another program).", maximum);
}
