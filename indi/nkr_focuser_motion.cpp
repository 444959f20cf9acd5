// Moves, motor settings of the standard focuser properties, and the poll that
// follows a move to its end.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "NKR_focuser.h"
#include "error_text.h"
#include "nkr_focuser.h"

namespace {

// A host move whose position has not changed for this long has stalled (the
// unit also reports its error state as "moving", so this is how it ends).
constexpr auto kStallTimeout = std::chrono::seconds(10);
constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// Seconds before the expected end of a move in which no progress is sent.
constexpr double kQuietBeforeEnd = 0.06;

}  // namespace

void NkrFocuser::readMotorSettings()
{
    const int id = m_unit.id();
    int range = 0;
    int position = 0;
    int maxStep = 0;
    int backlash = 0;
    bool reverse = false;
    NKRStepRange(id, &range);
    succeeded(NKRGetPosition(id, &position), "Reading the position");
    succeeded(NKRGetMaxStep(id, &maxStep), "Reading the maximum position");
    succeeded(NKRGetBacklash(id, &backlash), "Reading the backlash");
    succeeded(NKRGetReverse(id, &reverse), "Reading the direction");
    if (maxStep <= 0 || maxStep > range) maxStep = range;

    FocusMaxPosN[0].min = 1;
    FocusMaxPosN[0].max = range;
    FocusMaxPosN[0].step = std::max(range / 100, 1);
    FocusMaxPosN[0].value = maxStep;
    FocusAbsPosN[0].min = 0;
    FocusAbsPosN[0].max = maxStep;
    FocusAbsPosN[0].step = std::max(maxStep / 50, 1);
    FocusAbsPosN[0].value = position;
    FocusRelPosN[0].min = 0;
    FocusRelPosN[0].max = maxStep;
    FocusRelPosN[0].step = std::max(maxStep / 100, 1);
    FocusSyncN[0].min = 0;
    FocusSyncN[0].max = maxStep;
    SyncPresets(static_cast<uint32_t>(maxStep));

    FocusReverseS[INDI_ENABLED].s = reverse ? ISS_ON : ISS_OFF;
    FocusReverseS[INDI_DISABLED].s = reverse ? ISS_OFF : ISS_ON;
    if (backlash > 0) m_backlashSteps = backlash;
    FocusBacklashN[0].value = m_backlashSteps;
    FocusBacklashS[INDI_ENABLED].s = backlash > 0 ? ISS_ON : ISS_OFF;
    FocusBacklashS[INDI_DISABLED].s = backlash > 0 ? ISS_OFF : ISS_ON;

    m_mover = Mover::None;
    m_target = position;
    m_lastPosition = position;
    FocusAbsPosNP.s = IPS_OK;
    FocusRelPosNP.s = IPS_IDLE;
}

IPState NkrFocuser::MoveAbsFocuser(uint32_t targetTicks)
{
    if (!m_unit.isOpen()) {
        LOG_ERROR("The focuser is not there (unplugged or out of range); it cannot move.");
        return IPS_ALERT;
    }
    const int target = static_cast<int>(std::min<uint32_t>(targetTicks, INT32_MAX));
    // Another instance that opens units to list them would stop this move:
    // it waits while moves hold this lock (and a move waits for its scan).
    const std::string probeLock = nkrindi::probeLockPath();
    if (!m_moveHold.held() && !probeLock.empty() &&
        !m_moveHold.lock(probeLock, false, std::chrono::milliseconds(3000))) {
        LOG_ERROR("Another driver instance is scanning the units; try the move again.");
        return IPS_ALERT;
    }
    if (!succeeded(NKRMove(m_unit.id(), target), "Starting the move")) {
        m_moveHold.unlock();
        return IPS_ALERT;
    }
    m_mover = Mover::Host;
    m_target = target;
    m_lastProgress = std::chrono::steady_clock::now();
    LOGF_DEBUG("Moving to %d.", target);
    // The SDK returns after its pause, in which a short move may have ended:
    // then it is reported done at once, in one message. (A "Busy" just before
    // the "Ok" would hold the "Ok" back: indiserver's socket waits for the
    // client's delayed acknowledgement of the first small message.)
    bool moving = true;
    int position = 0;
    if (NKRIsMoving(m_unit.id(), &moving, nullptr) == NKR_SUCCESS && !moving &&
        NKRGetPosition(m_unit.id(), &position) == NKR_SUCCESS && position == target) {
        m_mover = Mover::None;
        m_moveHold.unlock();
        m_lastPosition = m_lastSeenPosition = position;
        schedulePoll();
        return IPS_OK;
    }
    schedulePoll();  // follow the move closely from now on
    return IPS_BUSY;
}

IPState NkrFocuser::MoveRelFocuser(FocusDirection dir, uint32_t ticks)
{
    const int64_t current = static_cast<int64_t>(FocusAbsPosN[0].value);
    const int64_t wanted = dir == FOCUS_INWARD ? current - static_cast<int64_t>(ticks)
                                               : current + static_cast<int64_t>(ticks);
    const int64_t target = std::clamp<int64_t>(wanted, 0, static_cast<int64_t>(FocusAbsPosN[0].max));
    return MoveAbsFocuser(static_cast<uint32_t>(target));
}

bool NkrFocuser::handleMoveNumber(const char* name, double values[], char* names[], int n)
{
    // The focuser base class announces each move in a session message of its
    // own before the property update. indiserver forwards the two as two
    // small writes, and the second then waits for the client's delayed
    // acknowledgement of the first (about 40 ms): a move that ends in the
    // SDK's pause would be reported that much late. So moves are taken here
    // and announced by the property update alone.
    const bool absolute = std::strcmp(name, FocusAbsPosNP.name) == 0;
    if (!absolute && std::strcmp(name, FocusRelPosNP.name) != 0) return false;
    if (n < 1 || values == nullptr) return false;
    const double wanted = values[0];
    INumberVectorProperty& asked = absolute ? FocusAbsPosNP : FocusRelPosNP;
    const double lowest = absolute ? FocusAbsPosN[0].min : 1;
    if (wanted < lowest || wanted > asked.np[0].max) {
        asked.s = IPS_ALERT;
        IDSetNumber(&asked, nullptr);
        LOGF_ERROR("%s %.0f is outside %.0f..%.0f.", absolute ? "Position" : "Step count", wanted,
                   lowest, asked.np[0].max);
        return true;
    }
    const uint32_t ticks = static_cast<uint32_t>(wanted);
    const IPState state =
        absolute ? MoveAbsFocuser(ticks)
                 : MoveRelFocuser(FocusMotionS[0].s == ISS_ON ? FOCUS_INWARD : FOCUS_OUTWARD, ticks);
    LOGF_DEBUG("Move to %d: %s.", m_target, pstateStr(state));
    if (state == IPS_OK) FocusAbsPosN[0].value = m_target;
    if (!absolute) {
        IUUpdateNumber(&FocusRelPosNP, values, names, n);
        FocusRelPosNP.s = state;
        IDSetNumber(&FocusRelPosNP, nullptr);  // first: the property the client asked
    }
    FocusAbsPosNP.s = state;
    IDSetNumber(&FocusAbsPosNP, nullptr);
    return true;
}

bool NkrFocuser::AbortFocuser()
{
    if (!m_unit.isOpen()) return false;
    if (!succeeded(NKRStop(m_unit.id()), "Stopping the motor")) return false;
    m_mover = Mover::None;
    m_moveHold.unlock();
    // Report where it stopped now rather than at the next poll.
    int position = 0;
    if (NKRGetPosition(m_unit.id(), &position) == NKR_SUCCESS) publishPosition(position);
    schedulePoll();
    return true;
}

bool NkrFocuser::ReverseFocuser(bool enabled)
{
    return m_unit.isOpen() &&
           succeeded(NKRSetReverse(m_unit.id(), enabled), "Setting the direction");
}

bool NkrFocuser::SyncFocuser(uint32_t ticks)
{
    if (!m_unit.isOpen()) return false;
    const int position = static_cast<int>(std::min<uint32_t>(ticks, INT32_MAX));
    if (!succeeded(NKRResetPostion(m_unit.id(), position), "Setting the position")) return false;
    m_target = position;
    publishPosition(position);
    return true;
}

bool NkrFocuser::SetFocuserMaxPosition(uint32_t ticks)
{
    if (!m_unit.isOpen()) return false;
    const int maxStep = static_cast<int>(std::min<uint32_t>(ticks, INT32_MAX));
    if (!succeeded(NKRSetMaxStep(m_unit.id(), maxStep), "Setting the maximum position"))
        return false;
    // Positions beyond the new maximum can no longer be asked for.
    for (INumberVectorProperty* limited : {&FocusAbsPosNP, &FocusRelPosNP, &FocusSyncNP}) {
        limited->np[0].max = maxStep;
        IUUpdateMinMax(limited);
    }
    return INDI::Focuser::SetFocuserMaxPosition(ticks);
}

bool NkrFocuser::SetFocuserBacklash(int32_t steps)
{
    m_backlashSteps = std::clamp(steps, 0, 255);
    if (FocusBacklashS[INDI_ENABLED].s != ISS_ON) return true;  // sent when switched on
    return m_unit.isOpen() &&
           succeeded(NKRSetBacklash(m_unit.id(), m_backlashSteps), "Setting the backlash");
}

bool NkrFocuser::SetFocuserBacklashEnabled(bool enabled)
{
    return m_unit.isOpen() && succeeded(NKRSetBacklash(m_unit.id(), enabled ? m_backlashSteps : 0),
                                        "Setting the backlash");
}

void NkrFocuser::publishPosition(int position)
{
    m_lastPosition = position;
    m_lastPublished = std::chrono::steady_clock::now();
    FocusAbsPosN[0].value = position;
    IDSetNumber(&FocusAbsPosNP, nullptr);
}

void NkrFocuser::finishMove(IPState state)
{
    m_mover = Mover::None;
    m_moveHold.unlock();
    // A relative move's own property first: the client waits on that one.
    if (FocusRelPosNP.s == IPS_BUSY) {
        FocusRelPosNP.s = state;
        IDSetNumber(&FocusRelPosNP, nullptr);
    }
    FocusAbsPosNP.s = state;
    IDSetNumber(&FocusAbsPosNP, nullptr);
}

void NkrFocuser::pollMotion()
{
    const int id = m_unit.id();
    bool moving = false;
    bool handMoving = false;
    int position = 0;
    int rc = NKR_SUCCESS;
    if (m_mover == Mover::None) {
        // At rest one exchange: the position. Only a change (a hand move, or
        // one that ended between two polls) asks for the motor state too.
        rc = NKRGetPosition(id, &position);
        if (rc == NKR_SUCCESS && position != m_lastPosition) rc = NKRIsMoving(id, &moving, &handMoving);
    } else {
        // Motor state first: a position read after "stopped" is the final one.
        rc = NKRIsMoving(id, &moving, &handMoving);
        if (rc == NKR_SUCCESS) rc = NKRGetPosition(id, &position);
    }
    if (rc != NKR_SUCCESS) {
        pollFailed(rc);
        return;
    }
    pollSucceeded();

    const auto now = std::chrono::steady_clock::now();
    // Progress of a running move at a client-friendly rate, but none just
    // before the expected end, which would hold the final message back (see
    // MoveAbsFocuser); where it stopped at once.
    bool nearEnd = false;
    if (position != m_lastSeenPosition) {
        const double seconds = std::chrono::duration<double>(now - m_lastProgress).count();
        const double stepsPerSecond = m_lastSeenPosition >= 0 && seconds > 0
                                          ? std::abs(position - m_lastSeenPosition) / seconds
                                          : 0;
        nearEnd = m_mover == Mover::Host && stepsPerSecond > 0 &&
                  std::abs(m_target - position) / stepsPerSecond < kQuietBeforeEnd;
        m_lastSeenPosition = position;
        m_lastProgress = now;
    }
    if (position != m_lastPosition &&
        (!moving || (now - m_lastPublished >= kProgressInterval && !nearEnd)))
        publishPosition(position);
    if (handMoving && m_mover == Mover::None) {
        LOG_INFO("The hand controller moves the focuser.");
        m_mover = Mover::HandController;
        m_lastProgress = now;
        FocusAbsPosNP.s = IPS_BUSY;
        IDSetNumber(&FocusAbsPosNP, nullptr);
    }

    if (moving) {
        if (m_mover == Mover::Host && now - m_lastProgress > kStallTimeout) {
            LOGF_ERROR("The motor has not moved for %d s; stopping it.",
                       static_cast<int>(kStallTimeout.count()));
            NKRStop(id);
            finishMove(IPS_ALERT);
        }
        return;
    }
    if (m_mover == Mover::Host && position != m_target) {
        LOGF_WARN("The focuser stopped at %d instead of %d.", position, m_target);
        finishMove(IPS_ALERT);
    } else if (m_mover != Mover::None) {
        finishMove(IPS_OK);
    }
}
