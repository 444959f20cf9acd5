// The C interface: argument checks, one call into the C++ layer, the result
// written back. Nothing may throw across it.
#include "nkr_host.h"

#include <NKR_focuser.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <nlohmann/json.hpp>

#include "nkrhost/errors.h"
#include "nkrhost/session.h"
#include "nkrhost/setting_catalogue.h"
#include "nkrhost/settings.h"
#include "nkrhost/tempfit.h"
#include "nkrhost/unit.h"

using namespace nkrhost;
using nlohmann::json;

// A unit this program opened, and once a command drove it, the session that
// holds it. A move is carried to its end by a thread of its own, so that the
// final approach runs whether or not the caller looks.
struct nkr_host_unit {
    std::unique_ptr<Unit> opened;
    std::unique_ptr<Session> session;
    std::mutex mutex;  // the session, between the caller's threads and the carrier
    std::thread carrier;
    std::optional<MoveReport> lastMove;

    Unit& unit() { return session ? session->unit() : *opened; }

    ~nkr_host_unit()
    {
        if (carrier.joinable()) carrier.join();
    }
};

namespace {

void writeText(const std::string& text, char* out, size_t size)
{
    if (out == nullptr || size == 0) return;
    const size_t n = std::min(text.size(), size - 1);
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

int answer(const Status& status, char* message, size_t size)
{
    writeText(status.message, message, size);
    return status.code;
}

int writeJson(const json& value, char* out, size_t size)
{
    const std::string text = value.dump();
    if (out != nullptr && size > text.size()) writeText(text, out, size);
    return static_cast<int>(text.size());
}

template <typename Fn>
int guarded(char* message, size_t size, Fn&& fn)
{
    try {
        return fn();
    } catch (const std::exception& e) {
        return answer(Status::failure(NKR_ERROR_GENERAL, std::string("host layer: ") + e.what()), message, size);
    } catch (...) {
        return answer(Status::failure(NKR_ERROR_GENERAL, "host layer: unexpected failure"), message, size);
    }
}

int nullUnit(char* message, size_t size)
{
    return answer(Status::failure(NKR_ERROR_INVALID_VALUE, "no unit given"), message, size);
}

json orNull(const std::string& text) { return text.empty() ? json(nullptr) : json(text); }

int kindNumber(ErrorKind kind) { return static_cast<int>(kind); }

UnitSettings settingsOf(Unit& unit)
{
    UnitSettings s;
    unit.settings(s);
    return s;
}

}  // namespace

extern "C" {

void nkr_host_init(void)
{
    try {
        chooseSavedRecord(HostSettings());
    } catch (...) {
    }
}

int nkr_host_open(const char* name, int bluetooth, int scan_ms, nkr_host_unit** unit, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    *unit = nullptr;
    return guarded(message, size, [&] {
        OpenRequest request;
        request.name = name != nullptr ? name : "";
        request.bluetooth = bluetooth == 1;
        request.bluetoothOnly = bluetooth == 2;
        if (scan_ms > 0) request.bleScanMillis = scan_ms;
        std::unique_ptr<Unit> opened;
        Status st = Unit::open(request, opened);
        if (!st.ok()) return answer(st, message, size);
        *unit = new nkr_host_unit;
        (*unit)->opened = std::move(opened);
        return answer(st, message, size);
    });
}

nkr_host_unit* nkr_host_adopt(int slot, int ble)
{
    try {
        auto* unit = new nkr_host_unit;
        unit->opened = Unit::adopt(slot, ble != 0 ? Link::Ble : Link::Usb);
        return unit;
    } catch (...) {
        return nullptr;
    }
}

void nkr_host_free(nkr_host_unit* unit, int close)
{
    if (unit == nullptr) return;
    try {
        {
            std::lock_guard lock(unit->mutex);
            // A program that never held a USB unit leaves it as it found it
            // (a close would stop another program's move and write to the
            // unit), unless it is gone: then the close frees its slot. A
            // Bluetooth link this program made is its own to drop.
            Unit& u = unit->unit();
            int position = 0;
            const bool gone = u.link() == Link::Usb && meansGone(Link::Usb, NKRGetPosition(u.slot(), &position));
            if (close == 0 || (!unit->session && u.link() == Link::Usb && !gone)) u.keepOpen();
            // Closing stops the motor: the carrier of a move ends with it.
            if (close != 0 && unit->session && unit->session->moving()) unit->session->stop();
        }
        delete unit;
    } catch (...) {
    }
}

void nkr_host_serial_text(const unsigned char serial[8], char* out, size_t size)
{
    if (serial == nullptr) return writeText("", out, size);
    writeText(serialText(serial), out, size);
}

void nkr_host_alias_of(const char* name, size_t capacity, char* out, size_t size)
{
    try {
        writeText(aliasFromName(name, capacity), out, size);
    } catch (...) {
        writeText("", out, size);
    }
}

int nkr_host_reconnect(nkr_host_unit* unit, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit().reconnect(), message, size); });
}

int nkr_host_slot(nkr_host_unit* unit) { return unit != nullptr ? unit->unit().slot() : -1; }

int nkr_host_identity_json(nkr_host_unit* unit, char* out, size_t size)
{
    if (unit == nullptr) return -1;
    try {
        const Identity& id = unit->unit().identity();
        json doc = {{"slot", id.slot},
                    {"link", id.link == Link::Ble ? "ble" : "usb"},
                    {"key", id.key()},
                    {"label", id.label()},
                    {"display_name", displayName(settingsOf(unit->unit()).name, id.alias, id.model)},
                    {"serial", orNull(id.serial)},
                    {"alias", orNull(id.alias)},
                    {"name", orNull(id.name)},
                    {"model", orNull(id.model)},
                    {"firmware", id.firmware.code == NKR_SUCCESS ? json(id.firmware.text()) : json(nullptr)},
                    {"step_range", id.stepRange},
                    {"ble_name", orNull(id.bleName)},
                    {"ble_address", orNull(id.bleAddress)}};
        return writeJson(doc, out, size);
    } catch (...) {
        return -1;
    }
}

int nkr_host_inventory_json(int ble_scan_ms, char* out, size_t size)
{
    try {
        json list = json::array();
        for (int slot : scanUsbSlots()) {
            // A unit that cannot be opened (permissions, just unplugged) is listed all the same.
            const int rc = NKROpen(slot);
            if (rc != NKR_SUCCESS) {
                list.push_back({{"link", "usb"}, {"slot", slot}, {"name", nullptr}, {"serial", nullptr},
                                {"alias", nullptr}, {"model", nullptr}, {"firmware", nullptr}, {"ble_name", nullptr},
                                {"ble_address", nullptr}, {"error", formatError(rc)}});
                continue;
            }
            const Identity id = readIdentity(slot, Link::Usb);
            list.push_back({{"link", "usb"},
                            {"slot", id.slot},
                            {"name", orNull(id.name)},
                            {"serial", orNull(id.serial)},
                            {"alias", orNull(id.alias)},
                            {"model", orNull(id.model)},
                            {"firmware", id.firmware.code == NKR_SUCCESS ? json(id.firmware.text()) : json(nullptr)},
                            {"ble_name", nullptr},
                            {"ble_address", nullptr}});
        }
        if (ble_scan_ms > 0) {
            std::vector<SeenUnit> found;
            if (scanBluetooth(found, ble_scan_ms).ok())
                for (const SeenUnit& u : found)
                    list.push_back({{"link", "ble"}, {"slot", nullptr}, {"name", u.bleName}, {"serial", nullptr},
                                    {"alias", nullptr}, {"model", nullptr}, {"firmware", nullptr},
                                    {"ble_name", u.bleName}, {"ble_address", u.bleAddress}});
        }
        return writeJson(list, out, size);
    } catch (...) {
        return -1;
    }
}

int nkr_host_maximum(nkr_host_unit* unit, int* maximum, char* message, size_t size)
{
    if (unit == nullptr || maximum == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit().maximum(*maximum), message, size); });
}

namespace {

// Takes hold of the unit for this program (once); with the unit's mutex held.
Status holdUnit(nkr_host_unit& unit, const std::string& holder)
{
    if (unit.session) return {};
    Session::Options options;
    options.holder = holder;
    options.compensate = false;
    options.poll = std::chrono::milliseconds(50);
    return Session::hold(unit.opened, options, unit.session);
}

std::string programHolder() { return std::string("Python nkr (") + program_invocation_short_name + ")"; }

// Ends the carrier of the last move (it ends by itself once the move has).
void joinCarrier(nkr_host_unit& unit)
{
    if (unit.carrier.joinable()) unit.carrier.join();
}

}  // namespace

int nkr_host_stop(nkr_host_unit* unit, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        std::lock_guard lock(unit->mutex);
        if (unit->session) return answer(unit->session->stop(), message, size);
        return answer(stopUnit(unit->unit(), programHolder()), message, size);
    });
}

int nkr_host_sync(nkr_host_unit* unit, long long position, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        std::lock_guard lock(unit->mutex);
        Status held = holdUnit(*unit, programHolder());
        return answer(held.ok() ? unit->session->sync(position) : held, message, size);
    });
}

int nkr_host_set_setting(nkr_host_unit* unit, const char* name, const char* value, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr || value == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        const SettingInfo* info = findSetting(name);
        if (info == nullptr)
            return answer(Status::failure(kBadSetting, std::string("'") + name + "' is not a setting; settings are " +
                                                           settingNames()),
                          message, size);
        SettingValue parsed;
        Status st = parseSetting(*info, value, parsed);
        if (!st.ok()) return answer(st, message, size);
        std::lock_guard lock(unit->mutex);
        // The unit's own settings are its holder's; the host programs' are anyone's.
        if (info->home == SettingHome::Host) {
            if (unit->session) return answer(unit->session->writeSetting(*info, parsed), message, size);
            return answer(writeSetting(unit->unit(), *info, parsed), message, size);
        }
        Status held = holdUnit(*unit, programHolder());
        return answer(held.ok() ? unit->session->writeSetting(*info, parsed) : held, message, size);
    });
}

int nkr_host_move(nkr_host_unit* unit, long long target, int timeout_ms, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        std::unique_lock lock(unit->mutex);
        Status st = holdUnit(*unit, programHolder());
        if (!st.ok()) return answer(st, message, size);
        if (unit->session->moving())
            return answer(Status::failure(NKR_ERROR_MOVING, "the focuser is already moving; stop it first"), message, size);
        lock.unlock();
        joinCarrier(*unit);
        lock.lock();
        FollowOptions options;
        options.timeout = std::chrono::milliseconds(timeout_ms > 0 ? timeout_ms : 0);
        st = unit->session->moveTo(target, options);
        if (!st.ok()) return answer(st, message, size);
        unit->lastMove.reset();
        unit->carrier = std::thread([unit] {
            std::vector<std::string> log;
            for (;;) {
                {
                    std::lock_guard carried(unit->mutex);
                    unit->session->tick(Session::Clock::now(), log);
                    if (!unit->session->moving()) {
                        if (auto ended = unit->session->takeMoveEnd()) unit->lastMove = ended;
                        return;
                    }
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        });
        return answer(st, message, size);
    });
}

int nkr_host_move_poll(nkr_host_unit* unit, int* position, int* percent, int* end, int* code, char* message,
                       size_t size)
{
    if (unit == nullptr) return -1;
    try {
        std::lock_guard lock(unit->mutex);
        if (!unit->session) return -1;
        if (!unit->lastMove && !unit->session->moving()) return -1;  // no move was started
        if (!unit->lastMove) {
            const MoveProgress p = unit->session->progress();
            if (position != nullptr) *position = p.position;
            if (percent != nullptr) *percent = p.percent;
            return 0;
        }
        const MoveReport& r = *unit->lastMove;
        if (position != nullptr) *position = r.result.position;
        if (percent != nullptr) *percent = r.arrived() ? 100 : unit->session->progress().percent;
        if (end != nullptr) *end = static_cast<int>(r.result.end);
        const Status why = r.status();
        if (code != nullptr) *code = why.code;
        writeText(why.message, message, size);
        return 1;
    } catch (...) {
        return -1;
    }
}

int nkr_host_move_interrupt(nkr_host_unit* unit, int* position, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        std::lock_guard lock(unit->mutex);
        if (!unit->session) return answer(unit->unit().stop(), message, size);
        const Status stopped = unit->session->stop();
        unit->lastMove = unit->session->takeMoveEnd();
        if (position != nullptr) *position = unit->lastMove ? unit->lastMove->result.position : unit->session->lastPosition();
        return answer(stopped, message, size);
    });
}

int nkr_host_settings_json(nkr_host_unit* unit, char* out, size_t size)
{
    if (unit == nullptr) return -1;
    try {
        std::string text;
        if (!unit->unit().hostSettings().readJson(unit->unit().key(), text).ok()) return -1;
        if (out != nullptr && size > text.size()) writeText(text, out, size);
        return static_cast<int>(text.size());
    } catch (...) {
        return -1;
    }
}

int nkr_host_settings_merge(nkr_host_unit* unit, const char* text, char* message, size_t size)
{
    if (unit == nullptr || text == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        return answer(unit->unit().hostSettings().mergeJson(unit->unit().key(), text), message, size);
    });
}

int nkr_host_save_position(nkr_host_unit* unit, const char* name, long long position, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit().savePosition(name, position), message, size); });
}

int nkr_host_remove_position(nkr_host_unit* unit, const char* name, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit().removePosition(name), message, size); });
}

int nkr_host_named_position(nkr_host_unit* unit, const char* name, int* position, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr || position == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit().namedPosition(name, *position), message, size); });
}

int nkr_host_fit_temperature(const double* temperatures, const double* positions, int count, double* coefficient,
                             double* r2, int* used, int* rejected, unsigned char* kept, char* message, size_t size)
{
    if (temperatures == nullptr || positions == nullptr || count < 0)
        return answer(Status::failure(NKR_ERROR_INVALID_VALUE, "no focus runs given"), message, size);
    return guarded(message, size, [&] {
        std::vector<FitRow> rows;
        for (int i = 0; i < count; ++i) rows.push_back({temperatures[i], positions[i]});
        TempFit fit;
        Status st = fitTemperature(rows, fit);
        if (!st.ok()) return answer(st, message, size);
        if (coefficient != nullptr) *coefficient = fit.coefficient;
        if (r2 != nullptr) *r2 = fit.r2;
        if (used != nullptr) *used = fit.used;
        if (rejected != nullptr) *rejected = fit.rejected;
        if (kept != nullptr)
            for (int i = 0; i < count; ++i) kept[i] = fit.kept[static_cast<size_t>(i)] ? 1 : 0;
        return answer(st, message, size);
    });
}

}  // extern "C"
