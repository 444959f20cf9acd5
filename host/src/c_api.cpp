// The C interface: argument checks, one call into the C++ layer, the result
// written back. Nothing may throw across it.
#include "nkr_host.h"

#include <NKR_focuser.h>

#include <cstring>
#include <memory>
#include <optional>
#include <nlohmann/json.hpp>

#include "nkrhost/errors.h"
#include "nkrhost/follow.h"
#include "nkrhost/settings.h"
#include "nkrhost/tempcomp.h"
#include "nkrhost/tempfit.h"
#include "nkrhost/unit.h"

using namespace nkrhost;
using nlohmann::json;

struct nkr_host_unit {
    std::unique_ptr<Unit> unit;
};

// Follows a single leg (a move begun with nkr_host_follow_begin) or a
// planned move of one or two legs.
struct nkr_host_follower {
    std::unique_ptr<MoveFollower> follower;
    std::unique_ptr<PlannedMove> planned;

    std::optional<FollowResult> poll(MoveFollower::Clock::time_point now)
    {
        return planned ? planned->poll(now) : follower->poll(now);
    }
    MoveProgress progress() const { return planned ? planned->progress() : follower->progress(); }
    FollowResult interrupt() { return planned ? planned->interrupt() : follower->interrupt(); }
};

struct nkr_host_tempcomp {
    TempCompRunner runner;
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

int nkr_host_error_count(void) { return static_cast<int>(errorCatalogue().size()); }

int nkr_host_error_entry(int index, int* code, const char** name, const char** text, int* kind)
{
    const auto& all = errorCatalogue();
    if (index < 0 || static_cast<size_t>(index) >= all.size()) return NKR_ERROR_INVALID_VALUE;
    const ErrorEntry& e = all[static_cast<size_t>(index)];
    if (code != nullptr) *code = e.code;
    if (name != nullptr) *name = e.name;
    if (text != nullptr) *text = e.text;
    if (kind != nullptr) *kind = kindNumber(e.kind);
    return NKR_SUCCESS;
}

int nkr_host_error_kind(int code) { return kindNumber(describeError(code).kind); }

const char* nkr_host_kind_name(int kind)
{
    if (kind < 0 || kind > static_cast<int>(ErrorKind::Internal)) return "internal";
    return kindName(static_cast<ErrorKind>(kind));
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
        *unit = new nkr_host_unit{std::move(opened)};
        return answer(st, message, size);
    });
}

nkr_host_unit* nkr_host_adopt(int slot, int ble)
{
    try {
        return new nkr_host_unit{Unit::adopt(slot, ble != 0 ? Link::Ble : Link::Usb)};
    } catch (...) {
        return nullptr;
    }
}

void nkr_host_free(nkr_host_unit* unit, int close)
{
    if (unit == nullptr) return;
    try {
        if (close == 0) unit->unit->keepOpen();
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

void nkr_host_refresh(nkr_host_unit* unit)
{
    if (unit == nullptr) return;
    try {
        unit->unit->refreshIdentity();
    } catch (...) {
    }
}

int nkr_host_reconnect(nkr_host_unit* unit, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->reconnect(), message, size); });
}

int nkr_host_slot(const nkr_host_unit* unit) { return unit != nullptr ? unit->unit->slot() : -1; }

int nkr_host_identity_json(nkr_host_unit* unit, char* out, size_t size)
{
    if (unit == nullptr) return -1;
    try {
        const Identity& id = unit->unit->identity();
        json doc = {{"slot", id.slot},
                    {"link", id.link == Link::Ble ? "ble" : "usb"},
                    {"key", id.key()},
                    {"label", id.label()},
                    {"display_name", displayName(settingsOf(*unit->unit).name, id.alias, id.model)},
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
    return guarded(message, size, [&] { return answer(unit->unit->maximum(*maximum), message, size); });
}

int nkr_host_set_maximum(nkr_host_unit* unit, long long maximum, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->setMaximum(maximum), message, size); });
}

int nkr_host_move_to(nkr_host_unit* unit, long long target, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->moveTo(target), message, size); });
}

int nkr_host_move_by(nkr_host_unit* unit, long long steps, int* target, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->moveBy(steps, target), message, size); });
}

int nkr_host_stop(nkr_host_unit* unit, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->stop(), message, size); });
}

int nkr_host_sync(nkr_host_unit* unit, long long position, char* message, size_t size)
{
    if (unit == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->sync(position), message, size); });
}

nkr_host_follower* nkr_host_follow_begin(nkr_host_unit* unit, int start, int target, int timeout_ms, int stall_ms)
{
    if (unit == nullptr) return nullptr;
    try {
        FollowOptions options;
        options.start = start;
        options.target = target;
        options.timeout = std::chrono::milliseconds(timeout_ms > 0 ? timeout_ms : 0);
        if (stall_ms > 0) options.stall = std::chrono::milliseconds(stall_ms);
        return new nkr_host_follower{std::make_unique<MoveFollower>(unit->unit->slot(), unit->unit->link(), options,
                                                                    MoveFollower::Clock::now()),
                                     nullptr};
    } catch (...) {
        return nullptr;
    }
}

int nkr_host_follow_poll(nkr_host_follower* f, int* position, int* moving, int* percent, int* end, int* code,
                         char* message, size_t size)
{
    if (f == nullptr) return -1;
    try {
        auto result = f->poll(MoveFollower::Clock::now());
        const MoveProgress p = f->progress();
        if (position != nullptr) *position = p.position;
        if (moving != nullptr) *moving = p.moving ? 1 : 0;
        if (percent != nullptr) *percent = p.percent;
        if (!result) return 0;
        if (position != nullptr) *position = result->position;
        if (end != nullptr) *end = static_cast<int>(result->end);
        const Status& why = !result->status.ok() ? result->status : result->stop;
        if (code != nullptr) *code = why.code;
        std::string text = why.message;
        if (!result->status.ok() && !result->stop.ok()) text += "; " + result->stop.message;
        writeText(text, message, size);
        return 1;
    } catch (...) {
        return -1;
    }
}

int nkr_host_follow_interrupt(nkr_host_follower* f, int* position, char* message, size_t size)
{
    if (f == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] {
        FollowResult r = f->interrupt();
        if (position != nullptr) *position = r.position;
        return answer(r.stop, message, size);
    });
}

void nkr_host_follow_free(nkr_host_follower* f) { delete f; }

int nkr_host_means_gone(int ble, int code) { return meansGone(ble != 0 ? Link::Ble : Link::Usb, code) ? 1 : 0; }

int nkr_host_settings_json(nkr_host_unit* unit, char* out, size_t size)
{
    if (unit == nullptr) return -1;
    try {
        std::string text;
        if (!unit->unit->hostSettings().readJson(unit->unit->key(), text).ok()) return -1;
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
        return answer(unit->unit->hostSettings().mergeJson(unit->unit->key(), text), message, size);
    });
}

int nkr_host_save_position(nkr_host_unit* unit, const char* name, long long position, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->savePosition(name, position), message, size); });
}

int nkr_host_remove_position(nkr_host_unit* unit, const char* name, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->removePosition(name), message, size); });
}

int nkr_host_named_position(nkr_host_unit* unit, const char* name, int* position, char* message, size_t size)
{
    if (unit == nullptr || name == nullptr || position == nullptr) return nullUnit(message, size);
    return guarded(message, size, [&] { return answer(unit->unit->namedPosition(name, *position), message, size); });
}

int nkr_host_move_planned(nkr_host_unit* unit, long long target, int timeout_ms, nkr_host_follower** follower,
                          char* message, size_t size)
{
    if (unit == nullptr || follower == nullptr) return nullUnit(message, size);
    *follower = nullptr;
    return guarded(message, size, [&] {
        FollowOptions options;
        options.timeout = std::chrono::milliseconds(timeout_ms > 0 ? timeout_ms : 0);
        std::unique_ptr<PlannedMove> move;
        Status st = unit->unit->planMove(target, options, move);
        if (st.ok()) st = move->start(MoveFollower::Clock::now());
        if (!st.ok()) return answer(st, message, size);
        *follower = new nkr_host_follower{nullptr, std::move(move)};
        return answer(st, message, size);
    });
}

nkr_host_tempcomp* nkr_host_tempcomp_new(nkr_host_unit* unit, const char* holder)
{
    if (unit == nullptr) return nullptr;
    try {
        return new nkr_host_tempcomp{TempCompRunner(*unit->unit, holder != nullptr ? holder : "a program")};
    } catch (...) {
        return nullptr;
    }
}

int nkr_host_tempcomp_tick(nkr_host_tempcomp* t, char* log, size_t size)
{
    if (t == nullptr) return -1;
    try {
        std::vector<std::string> lines;
        t->runner.tick(lines);
        std::string text;
        for (const std::string& line : lines) text += line + "\n";
        writeText(text, log, size);
        return static_cast<int>(t->runner.state());
    } catch (...) {
        return -1;
    }
}

int nkr_host_tempcomp_describe(nkr_host_tempcomp* t, char* text, size_t size)
{
    if (t == nullptr) return -1;
    try {
        const std::string d = t->runner.describe();
        writeText(d, text, size);
        return static_cast<int>(d.size());
    } catch (...) {
        return -1;
    }
}

void nkr_host_tempcomp_free(nkr_host_tempcomp* t) { delete t; }

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
