#include "nkrhost/session.h"

#include <NKR_focuser.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <thread>

namespace nkrhost {
namespace {

// How long a unit that came back shows as "back".
constexpr auto kBackShown = std::chrono::seconds(10);

std::string notePath(const std::string& unitKey)
{
    const std::string dir = claimDirectory();
    if (dir.empty()) return {};
    std::string name = "stopped-";
    for (char c : unitKey) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return dir + "/" + name + ".note";
}

}  // namespace

const char* unitStateName(UnitState state)
{
    switch (state) {
    case UnitState::Absent: return "absent";
    case UnitState::Connecting: return "connecting";
    case UnitState::Ready: return "ready";
    case UnitState::Moving: return "moving";
    case UnitState::Gone: return "gone";
    case UnitState::Back: return "back";
    }
    return "unknown";
}

void noteStoppedBy(const std::string& unitKey, const std::string& who)
{
    const std::string path = notePath(unitKey);
    if (path.empty()) return;
    const std::string tmp = path + ".tmp" + std::to_string(::getpid());
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return;
    const std::string text = who + " (pid " + std::to_string(::getpid()) + ")";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (!written || ::rename(tmp.c_str(), path.c_str()) != 0) ::unlink(tmp.c_str());
}

std::string stoppedBy(const std::string& unitKey, std::chrono::system_clock::time_point since)
{
    const std::string path = notePath(unitKey);
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
    const auto written = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    return written < since ? std::string() : readClaimText(path);
}

Status stopUnit(Unit& unit, const std::string& who)
{
    // The note is left before the stop: the holder may see the motor stop
    // before the stop call returns here, and must find who stopped it. A
    // stop that failed takes its note back.
    const bool held = !unitHolder(unit.key()).empty();
    if (held) noteStoppedBy(unit.key(), who);
    Status stopped = unit.stop();
    if (!stopped.ok() && held) {
        if (const std::string path = notePath(unit.key()); !path.empty()) ::unlink(path.c_str());
    }
    return stopped;
}

// ---- how a move ended -------------------------------------------------------

std::string MoveReport::sentence() const
{
    const std::string at = std::to_string(result.position), to = std::to_string(target);
    switch (result.end) {
    case MoveEnd::Reached:
        return "reached " + to;
    case MoveEnd::StoppedShort: {
        if (!result.status.ok()) return result.status.message;
        const long long shortBy = std::llabs(static_cast<long long>(target) - result.position);
        return "stopped at " + at + ", " + std::to_string(shortBy) + " steps short of " + to +
               (stoppedBy.empty() ? " (stopped by a hand, another program or a limit)" : " (stopped by " + stoppedBy + ")");
    }
    case MoveEnd::Interrupted:
        return "stopped at " + at + " on request; " + to + " was not reached" +
               (result.stop.ok() ? "" : ", and " + result.stop.message);
    default:
        return result.status.message + (result.stop.ok() ? "" : "; " + result.stop.message);
    }
}

Status MoveReport::status() const
{
    if (arrived()) return {};
    const int code = result.status.ok() || result.end == MoveEnd::StoppedShort ? kMoveNotArrived : result.status.code;
    return Status::failure(result.end == MoveEnd::StoppedShort && !result.status.ok() ? result.status.code : code,
                           "the move to " + std::to_string(target) + " did not arrive: " + sentence());
}

// ---- the session --------------------------------------------------------------

Session::Session(std::unique_ptr<Unit> unit, const Options& options)
    : m_unit(std::move(unit)), m_options(options)
{
}

Status Session::hold(std::unique_ptr<Unit>& unit, const Options& options, std::unique_ptr<Session>& out)
{
    out.reset();
    if (!unit) return Status::failure(NKR_ERROR_INVALID_ID, "no unit to hold");
    std::unique_ptr<Session> session(new Session(std::move(unit), options));
    Status taken = takeUnitHold(session->m_claim, session->m_unit->key(), options.holder);
    if (!taken.ok()) {
        // Left with the caller as it was: open, nothing sent, nothing closed.
        session->m_unit->keepOpen();
        unit = std::move(session->m_unit);
        return taken;
    }
    const Identity& id = session->m_unit->identity();
    if (id.link == Link::Ble && !id.bleAddress.empty() && id.key() != "ble-" + id.bleAddress)
        takeBluetoothHold(session->m_addressClaim, id.bleAddress, options.holder);
    session->m_unit->applyStoredMaximum();
    session->m_unit->maximum(session->m_appliedMaximum);
    session->m_unit->position(session->m_lastPosition);
    if (options.compensate) session->m_tempComp = std::make_unique<TempCompRunner>(*session->m_unit, options.holder);
    out = std::move(session);
    return {};
}

Session::~Session()
{
    m_tempComp.reset();
    m_move.reset();
    m_unit.reset();  // closes as the unit was told to
    m_claim.release();
    m_addressClaim.release();
}

UnitState Session::state(Clock::time_point now) const
{
    if (m_unit->gone()) return UnitState::Gone;
    if (moving()) return UnitState::Moving;
    if (m_cameBack && now < m_backAt + kBackShown) return UnitState::Back;
    return UnitState::Ready;
}

Status Session::position(int& out)
{
    if (m_unit->gone()) {
        out = m_lastPosition;
        return Status::failure(NKR_ERROR_REMOVED, "the focuser " + m_unit->key() + " is gone (last seen at " +
                                                      std::to_string(m_lastPosition) + "); it is looked for again");
    }
    Status read = m_unit->position(out);
    if (read.ok()) m_lastPosition = out;
    return read;
}

Status Session::moveTo(long long target, const FollowOptions& options, Clock::time_point now)
{
    if (m_move) return Status::failure(NKR_ERROR_MOVING, "the focuser is already moving to " +
                                                             std::to_string(m_move->target()) + "; stop it first");
    FollowOptions follow = options;
    if (follow.poll.count() <= 0) follow.poll = m_options.poll;
    int from = 0;
    if (Status read = position(from); !read.ok()) return read;
    follow.start = from;
    std::unique_ptr<PlannedMove> planned;
    Status st = m_unit->planMove(target, follow, planned);
    if (st.ok()) st = planned->start(now);
    if (!st.ok()) return st;
    m_move = std::move(planned);
    m_moveBegun = std::chrono::system_clock::now();
    m_moveEnd.reset();
    m_lastProgress = m_move->progress();
    return {};
}

Status Session::moveBy(long long steps, int* target, const FollowOptions& options, Clock::time_point now)
{
    int from = 0;
    if (Status read = position(from); !read.ok()) return read;
    const long long goal = from + steps;
    if (target != nullptr) *target = static_cast<int>(std::clamp<long long>(goal, INT32_MIN, INT32_MAX));
    return moveTo(goal, options, now);
}

Status Session::stop()
{
    std::vector<std::string> ignored;
    if (m_move) {
        const int target = m_move->target();
        FollowResult r = m_move->interrupt();
        m_lastProgress = m_move->progress();
        m_move.reset();
        MoveReport report;
        report.result = r;
        report.target = target;
        m_moveEnd = report;
        m_lastPosition = r.position;
        if (m_tempComp) m_tempComp->userMoveEnded();
        return r.stop;
    }
    return m_unit->stop();
}

Status Session::sync(long long position)
{
    if (m_move) return Status::failure(NKR_ERROR_MOVING, "the focuser is moving; stop it before declaring its position");
    Status st = m_unit->sync(position);
    if (st.ok()) {
        m_lastPosition = static_cast<int>(position);
        if (m_tempComp) m_tempComp->userMoveEnded();
    }
    return st;
}

Status Session::writeSetting(const SettingInfo& info, const SettingValue& value)
{
    if (std::string(info.name) == "max-step") return m_unit->setMaximum(static_cast<long long>(value.number), true);
    if (info.home == SettingHome::Unit && m_move)
        return Status::failure(NKR_ERROR_MOVING, std::string("the focuser is moving; ") + info.name +
                                                     " is changed when it stands still");
    return nkrhost::writeSetting(*m_unit, info, value);
}

MoveProgress Session::progress() const { return m_move ? m_move->progress() : m_lastProgress; }

std::optional<MoveReport> Session::takeMoveEnd()
{
    std::optional<MoveReport> r = std::move(m_moveEnd);
    m_moveEnd.reset();
    return r;
}

void Session::endMove(const FollowResult& result, std::vector<std::string>& log)
{
    MoveReport report;
    report.result = result;
    report.target = m_move->target();
    if (result.end == MoveEnd::StoppedShort && result.status.ok())
        report.stoppedBy = stoppedBy(m_unit->key(), m_moveBegun);
    m_move.reset();
    m_lastPosition = result.position;
    if (m_tempComp) m_tempComp->userMoveEnded();
    if (!report.arrived()) log.push_back("the move to " + std::to_string(report.target) + " did not arrive: " + report.sentence());
    m_moveEnd = report;
    if (result.end == MoveEnd::Gone) noteGone(result.status.code != 0 ? result.status.code : NKR_ERROR_REMOVED, log);
}

void Session::noteGone(int code, std::vector<std::string>& log)
{
    if (m_goneSince == std::chrono::system_clock::time_point{})
        log.push_back("the focuser " + m_unit->key() + " is gone at position " + std::to_string(m_lastPosition) + ": " +
                      describeError(code).text + "; looking for it again");
    m_goneSince = std::chrono::system_clock::now();
    m_move.reset();
    m_correcting = false;
    m_unit->backoff().reset();
}

void Session::tick(Clock::time_point now, std::vector<std::string>& log)
{
    if (m_unit->gone()) {
        if (m_goneSince == std::chrono::system_clock::time_point{}) noteGone(NKR_ERROR_REMOVED, log);
        if (!m_unit->backoff().due(now)) return;
        if (!m_unit->reconnect().ok()) return;
        m_goneSince = {};
        m_backAt = now;
        m_cameBack = true;
        m_unit->position(m_lastPosition);
        log.push_back("the focuser " + m_unit->key() + " is back at position " + std::to_string(m_lastPosition));
        return;
    }
    if (m_move) {
        auto end = m_move->poll(now);
        m_lastProgress = m_move->progress();
        m_lastPosition = m_lastProgress.position;
        if (end) endMove(*end, log);
        return;
    }
    if (m_correcting) {
        bool moving = false;
        const int rc = NKRIsMoving(m_unit->slot(), &moving, nullptr);
        m_unit->noteResult(rc);
        if (rc == NKR_SUCCESS && !moving) m_correcting = false;
    }
    // A maximum another program chose reaches the unit (one stat while unchanged).
    int max = 0;
    if (m_unit->maximum(max).ok() && max != m_appliedMaximum) {
        m_unit->applyStoredMaximum();
        m_appliedMaximum = max;
    }
    if (m_tempComp && now >= m_nextTempTick) {
        m_nextTempTick = now + m_options.tempCompPeriod;
        m_tempComp->tick(log);
        m_correcting = m_tempComp->correcting();
    }
    if (m_unit->gone()) noteGone(NKR_ERROR_REMOVED, log);
}

MoveReport Session::waitForMove(const FollowHooks& hooks)
{
    auto now = [&] { return hooks.now ? hooks.now() : Clock::now(); };
    std::vector<std::string> log;
    while (m_move) {
        if (hooks.interrupted && hooks.interrupted()) {
            stop();
            break;
        }
        tick(now(), log);
        if (!m_move) break;
        if (hooks.progress) hooks.progress(m_move->progress());
        const auto poll = m_options.poll;
        if (hooks.sleep)
            hooks.sleep(poll);
        else
            std::this_thread::sleep_for(poll);
    }
    if (std::optional<MoveReport> r = takeMoveEnd()) return *r;
    MoveReport none;
    none.result.position = m_lastPosition;
    none.target = m_lastPosition;
    return none;
}

std::string Session::tempCompSummary() const { return m_tempComp ? m_tempComp->describe() : std::string(); }

}  // namespace nkrhost
