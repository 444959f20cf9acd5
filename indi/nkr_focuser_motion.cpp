// Moves, motor settings of the standard focuser properties, and the poll that
// follows a move to its end.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>

#include "NKR_focuser.h"
#include "nkr_focuser.h"
#include "nkrhost/setting_catalogue.h"

namespace {

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
    // The user's maximum as every front-end keeps it (host settings, else the unit's).
    succeeded(m_unit.unit().maximum(maxStep));
    succeeded(NKRGetBacklash(id, &backlash), "Reading the backlash");
    succeeded(NKRGetReverse(id, &reverse), "Reading the direction");
    if (maxStep <= 0 || maxStep > range) maxStep = range;

    // The move properties take the whole step range: a target beyond the
    // user's maximum is refused by the host layer, with the sentence every
    // front-end gives, rather than clamped by the property's limits.
    FocusMaxPosN[0].min = 1;
    FocusMaxPosN[0].max = range;
    FocusMaxPosN[0].step = std::max(range / 100, 1);
    FocusMaxPosN[0].value = maxStep;
    FocusAbsPosN[0].min = 0;
    FocusAbsPosN[0].max = range;
    FocusAbsPosN[0].step = std::max(maxStep / 50, 1);
    FocusAbsPosN[0].value = position;
    FocusRelPosN[0].min = 0;
    FocusRelPosN[0].max = range;
    FocusRelPosN[0].step = std::max(maxStep / 100, 1);
    FocusSyncN[0].min = 0;
    FocusSyncN[0].max = range;
    // Set here, not sent: at connect the presets are not defined yet.
    for (int k = 0; k < 3; ++k) {
        PresetN[k].min = 0;
        PresetN[k].max = range;
        PresetN[k].step = FocusAbsPosN[0].step;
    }

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

IPState NkrFocuser::MoveAbsFocuser(uint32_t targetTicks) { return startMove(static_cast<int64_t>(targetTicks)); }

IPState NkrFocuser::startMove(int64_t target, bool relative)
{
    if (!m_unit.isOpen() || m_lost) {
        LOG_ERROR("The focuser is not there (unplugged or out of range); it cannot move.");
        announceMove(IPS_ALERT, relative);
        return IPS_ALERT;
    }
    if (m_mover != Mover::None) {
        // The running move stays followed and Busy; the client is answered
        // with it.
        LOGF_ERROR("The focuser is moving%s; abort that move before the next.",
                   m_mover == Mover::HandController ? " by the hand controller"
                   : m_mover == Mover::Compensation ? " for temperature compensation"
                                                     : "");
        if (relative && FocusRelPosNP.s != IPS_BUSY) {
            FocusRelPosNP.s = IPS_ALERT;
            IDSetNumber(&FocusRelPosNP, nullptr);
        }
        IDSetNumber(&FocusAbsPosNP, nullptr);
        return IPS_BUSY;
    }
    if (target < 0) {
        const int at = static_cast<int>(FocusAbsPosN[0].value);
        LOGF_ERROR("Position %lld is below 0, the innermost position: from %d the focuser can move inward by at "
                   "most %d steps.", static_cast<long long>(target), at, at);
        announceMove(IPS_ALERT, relative);
        return IPS_ALERT;
    }
    // The host plans it: refused beyond the user's maximum, one leg or two
    // for a final approach.
    nkrhost::FollowOptions options;
    std::unique_ptr<nkrhost::PlannedMove> move;
    if (!succeeded(m_unit.unit().planMove(target, options, move))) {
        announceMove(IPS_ALERT, relative);
        return IPS_ALERT;
    }
    m_target = static_cast<int>(target);
    if (move->legCount() == 1 && m_target == static_cast<int>(FocusAbsPosN[0].value)) {
        announceMove(IPS_OK, relative);  // already there: nothing moves
        return IPS_OK;
    }
    // Busy now, from where the focuser stands: the SDK's move command holds
    // the unit for its 0.2 s pause, and nothing can be read until it returns.
    char text[80];
    std::snprintf(text, sizeof text, "Moving from %d to %d.", static_cast<int>(FocusAbsPosN[0].value), m_target);
    announceMove(IPS_BUSY, relative, text);
    m_nextMotionPoll = kMotionPollMillis;
    // The speed of the first progress is taken over the pause, from here.
    m_lastProgress = std::chrono::steady_clock::now();
    m_lastSeenPosition = static_cast<int>(FocusAbsPosN[0].value);
    if (!succeeded(move->start(nkrhost::PlannedMove::Clock::now()))) {
        finishMove(IPS_ALERT);
        return IPS_ALERT;
    }
    m_move = std::move(move);
    m_mover = Mover::Host;
    // A move that ended inside the pause ends Ok now; a longer one shows
    // where it is and is followed closely from now on.
    followHostMove();
    schedulePoll();
    return m_mover == Mover::Host ? IPS_BUSY : FocusAbsPosNP.s;
}

void NkrFocuser::announceMove(IPState state, bool relative, const char* message)
{
    if (relative) {
        FocusRelPosNP.s = state;
        IDSetNumber(&FocusRelPosNP, nullptr);  // first: the property the client asked
    }
    FocusAbsPosNP.s = state;
    IDSetNumber(&FocusAbsPosNP, message == nullptr ? nullptr : "%s", message);
}

IPState NkrFocuser::MoveRelFocuser(FocusDirection dir, uint32_t ticks)
{
    // Past 0 or the maximum is refused, never clamped.
    const int64_t current = static_cast<int64_t>(FocusAbsPosN[0].value);
    return startMove(dir == FOCUS_INWARD ? current - static_cast<int64_t>(ticks) : current + static_cast<int64_t>(ticks),
                     true);
}

bool NkrFocuser::handleMoveNumber(const char* name, double values[], char* names[], int n)
{
    // The focuser base class announces each move in a session message of its
    // own before the property update. indiserver forwards the two as two
    // small writes, and the second then waits for the client's delayed
    // acknowledgement of the first (about 40 ms). So moves are taken here and
    // announced by the property updates alone.
    const bool absolute = std::strcmp(name, FocusAbsPosNP.name) == 0;
    if (!absolute && std::strcmp(name, FocusRelPosNP.name) != 0) return false;
    if (n < 1 || values == nullptr) return false;
    const double wanted = values[0];
    if (absolute) {
        startMove(static_cast<int64_t>(std::clamp(wanted, -1e9, 1e9)));
        return true;
    }
    if (!(wanted >= 1 && wanted <= 1e9)) {
        LOGF_ERROR("A relative move of %.0f steps: give at least 1 step.", wanted);
        announceMove(IPS_ALERT, true);
        return true;
    }
    // The property's limits are the step range; the host refuses beyond the maximum.
    IUUpdateNumber(&FocusRelPosNP, values, names, n);
    const int64_t ticks = static_cast<int64_t>(wanted);
    const int64_t current = static_cast<int64_t>(FocusAbsPosN[0].value);
    startMove(FocusMotionS[0].s == ISS_ON ? current - ticks : current + ticks, true);
    return true;
}

bool NkrFocuser::handleMaxNumber(const char* name, double values[], int n)
{
    if (std::strcmp(name, FocusMaxPosNP.name) != 0 || n < 1 || values == nullptr) return false;
    const double wanted = values[0];
    bool ok = false;
    if (!(wanted >= FocusMaxPosN[0].min && wanted <= FocusMaxPosN[0].max))
        LOGF_ERROR("Maximum position %.0f refused: this focuser takes %.0f to %.0f.", wanted, FocusMaxPosN[0].min,
                   FocusMaxPosN[0].max);
    else
        ok = SetFocuserMaxPosition(static_cast<uint32_t>(std::llround(wanted)));
    if (ok) FocusMaxPosN[0].value = std::llround(wanted);
    FocusMaxPosNP.s = ok ? IPS_OK : IPS_ALERT;
    IDSetNumber(&FocusMaxPosNP, nullptr);
    return true;
}

bool NkrFocuser::refuseBacklash(const char* name, double values[], int n)
{
    if (std::strcmp(name, FocusBacklashNP.name) != 0 || n < 1 || values == nullptr) return false;
    const double wanted = values[0];
    const nkrhost::Status allowed = nkrhost::checkSettingNumber(*nkrhost::findSetting("backlash"), wanted);
    if (allowed.ok()) return false;
    LOGF_ERROR("Backlash refused: %s; the unit keeps %d.", allowed.message.c_str(), m_backlashSteps);
    FocusBacklashNP.s = IPS_ALERT;
    IDSetNumber(&FocusBacklashNP, nullptr);
    return true;
}

bool NkrFocuser::AbortFocuser()
{
    if (!m_unit.isOpen()) return false;
    // A planned move stops at once, with no further leg; a failed stop is said.
    nkrhost::Status stopped = m_move ? m_move->interrupt().stop : m_unit.unit().stop();
    m_move.reset();
    if (!succeeded(stopped)) return false;
    // Where it stopped, now rather than at the next poll; the move ends Ok,
    // stopped as asked.
    int position = 0;
    if (NKRGetPosition(m_unit.id(), &position) == NKR_SUCCESS) {
        m_lastPosition = m_lastSeenPosition = position;
        FocusAbsPosN[0].value = position;
    }
    if (m_mover != Mover::None) finishMove(IPS_OK);
    else publishPosition(static_cast<int>(FocusAbsPosN[0].value));
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
    if (!succeeded(m_unit.unit().sync(position))) return false;
    m_target = position;
    publishPosition(position);
    return true;
}

bool NkrFocuser::SetFocuserMaxPosition(uint32_t ticks)
{
    if (!m_unit.isOpen()) return false;
    // Kept on the unit and in the host settings: every front-end holds moves within it.
    // The presets keep the whole step range as their limits (the base class
    // would narrow them to the maximum).
    return succeeded(m_unit.unit().setMaximum(static_cast<long long>(ticks)));
}

bool NkrFocuser::SetFocuserBacklash(int32_t steps)
{
    m_backlashSteps = steps;  // within the unit's range: refuseBacklash saw to it
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
    if (m_mover == Mover::Host && m_tempComp) m_tempComp->userMoveEnded();
    m_mover = Mover::None;
    m_move.reset();
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
    if (m_mover == Mover::Host && m_move) {
        followHostMove();
        return;
    }
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
    if (handMoving && m_mover == Mover::None) {
        LOG_INFO("The hand controller moves the focuser.");
        m_mover = Mover::HandController;
        m_lastProgress = now;
        m_lastPosition = position;
        m_lastPublished = now;
        FocusAbsPosN[0].value = position;
        FocusAbsPosNP.s = IPS_BUSY;
        IDSetNumber(&FocusAbsPosNP, nullptr);
        return;
    }
    if (!moving && m_mover != Mover::None) {
        // The end: the final position goes with the Ok, in one message.
        m_lastPosition = position;
        FocusAbsPosN[0].value = position;
        finishMove(IPS_OK);
    } else if (position != m_lastPosition && m_mover != Mover::Compensation &&
               (!moving || (now - m_lastPublished >= kProgressInterval && !nearEnd))) {
        // A correction is short and its target the compensation's own: it
        // shows Busy, then its end with Ok, and no Busy at the end before it.
        publishPosition(position);
    }
}

void NkrFocuser::followHostMove()
{
    // The host's follow loop, one look per tick: one meaning of reached,
    // stopped short, gone, timed out and stalled for every front-end.
    auto now = std::chrono::steady_clock::now();
    const size_t leg = m_move->leg();
    auto end = m_move->poll(now);
    if (!end && m_move->leg() != leg) {
        // The next leg started, after the SDK's pause: it may have ended in it.
        now = std::chrono::steady_clock::now();
        end = m_move->poll(now);
    }
    const nkrhost::MoveProgress p = m_move->progress();
    if (p.position != m_lastSeenPosition) {
        const double seconds = std::chrono::duration<double>(now - m_lastProgress).count();
        const double stepsPerSecond = m_lastSeenPosition >= 0 && seconds > 0
                                          ? std::abs(p.position - m_lastSeenPosition) / seconds
                                          : 0;
        // No progress just before the expected end, which would hold the
        // final message back (see startMove).
        const double remaining = stepsPerSecond > 0 ? std::abs(m_target - p.position) / stepsPerSecond : 1.0;
        const bool nearEnd = remaining < kQuietBeforeEnd;
        // The next look just after the expected end, so that the end is
        // seen within a few ms of it rather than up to a whole poll later.
        m_nextMotionPoll = std::clamp<uint32_t>(static_cast<uint32_t>(remaining * 1000) + 2, kMinMotionPollMillis,
                                                kMotionPollMillis);
        m_lastSeenPosition = p.position;
        m_lastProgress = now;
        if (!end && !nearEnd && now - m_lastPublished >= kProgressInterval) publishPosition(p.position);
    }
    if (!end) return;
    // The final position goes with the final state, in one message: no Busy
    // at the target just before the Ok.
    m_lastSeenPosition = end->position;
    if (end->end != nkrhost::MoveEnd::Gone) {
        m_lastPosition = end->position;
        m_lastPublished = now;
        FocusAbsPosN[0].value = end->position;
    }
    switch (end->end) {
    case nkrhost::MoveEnd::Reached:
        pollSucceeded();
        finishMove(IPS_OK);
        break;
    case nkrhost::MoveEnd::Gone:
        loseUnit();  // says so once, with the move that failed
        break;
    case nkrhost::MoveEnd::StoppedShort:
        LOGF_WARN("The focuser stopped at %d instead of %d.", end->position, m_target);
        finishMove(IPS_ALERT);
        break;
    default:  // timed out, stalled, interrupted: the host's sentence, and a failed stop
        succeeded(end->status);
        succeeded(end->stop);
        finishMove(IPS_ALERT);
        break;
    }
}
