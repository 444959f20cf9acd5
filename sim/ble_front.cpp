// The Bluetooth helper library's entry points over the simulated units: a
// drop-in for libBlueShim.so. The radio never blocks: a unit that has nothing
// to say makes a wait return false at once.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "ble/BlueShimExports.h"
#include "ble_events.h"
#include "unit_checks.h"
#include "unit_model.h"
#include "world.h"

namespace {
using namespace nkrsim::detail;
using Bytes = std::vector<uint8_t>;

enum : uint8_t { kCmdPair = 0, kCmdClearPair = 1, kCmdDevice = 2, kCmdExtended = 3 };
constexpr uint8_t kNewConnection = 0x9B;

struct Request {
    uint8_t sequence = 0;
    uint8_t command = 0;
    Bytes payload;
};

// What the unit answers: a status and the bytes after it (from frame byte 4).
struct Answer {
    uint8_t status = 0;
    Bytes body;
};

uint8_t checksum(const Bytes& bytes, size_t count)
{
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

// 00 len seq cmd payload lenHigh 00 00 00 sum, once checkRequestFrame took it.
Request decodeRequest(const Bytes& f)
{
    const size_t n = f.size() - 9;
    return Request{f[2], f[3], Bytes(f.begin() + 4, f.begin() + 4 + static_cast<long>(n))};
}

// The length byte as this world's units fill it: the frame less its type,
// length, sequence, status and checksum bytes; less the three header bytes
// of an answer as well; or a fixed value.
uint8_t lengthByte(size_t frameSize, bool answer)
{
    World& w = world();
    if (!w.bleLengthRead) {
        w.bleLengthRead = true;
        if (const char* spec = std::getenv("NKR_SIM_BLE_LENGTH")) nkr_sim_set_ble_length(spec);
    }
    switch (w.bleLength) {
    case nkrsim::BleLength::PayloadOnly: return static_cast<uint8_t>(frameSize - 5 - (answer ? 3 : 0));
    case nkrsim::BleLength::Fixed: return w.bleLengthFixed;
    default: return static_cast<uint8_t>(frameSize - 5);
    }
}

Bytes responseFrame(uint8_t sequence, uint8_t status, const Bytes& body)
{
    Bytes f = {0x01, lengthByte(body.size() + 5, true), sequence, status};
    f.insert(f.end(), body.begin(), body.end());
    f.push_back(checksum(f, f.size()));
    return f;
}

Manager* managerOf(void* handle)
{
    auto& all = world().managers;
    auto it = all.find(static_cast<Manager*>(handle));
    return it == all.end() ? nullptr : it->second.get();
}

Unit* connectedUnit(const Manager& m)
{
    Unit* u = m.connected >= 0 ? findUnit(m.connected) : nullptr;
    return u && u->plugged && u->spec.ble ? u : nullptr;
}

// Firmware blocks while a Bluetooth update runs: acknowledged by length.
Answer updateBlock(Unit& u, const Bytes& block)
{
    u.image.insert(u.image.end(), block.begin(), block.end());
    int ack = static_cast<int>(block.size()) + u.update.ackLengthDelta;
    if (u.image.size() >= u.bleUpdateSize) finishUpdate(u);
    return {0, {static_cast<uint8_t>(ack >> 8), static_cast<uint8_t>(ack), 0}};
}

std::optional<Answer> extended(Unit& u, const Bytes& p)
{
    if (u.bleUpdating) return updateBlock(u, p);
    if (std::optional<nkrsim::Refusal> why = checkExtended(p)) {
        refuse(u, *why, p.data(), p.size());
        return std::nullopt;
    }
    if (p[2] == 0x01) {
        Bytes body = {0x01};
        Bytes data = allInfoData(u);
        body.insert(body.end(), data.begin(), data.end());
        return Answer{0, body};
    }
    if (p[2] == 0x02 && p.size() >= 7) {
        if (u.update.refuseStart) return Answer{0x01, {0x02, 0, 0}};
        u.bleUpdating = true;
        u.bleUpdateSize = static_cast<uint32_t>(p[3] << 24 | p[4] << 16 | p[5] << 8 | p[6]);
        u.image.clear();
        if (u.bleUpdateSize == 0) finishUpdate(u);
        return Answer{0, {0x02, 0, 0}};
    }
    return std::nullopt;
}

// Runs a request on the unit; the answer it gives, if any.
std::optional<Answer> execute(Unit& u, const Request& r)
{
    switch (r.command) {
    case kCmdPair:
    case kCmdClearPair:
        u.st.paired = r.command == kCmdPair;
        return Answer{0, {r.command, 0, 0}};
    case kCmdDevice: {
        Bytes report = {0x03};
        report.insert(report.end(), r.payload.begin(), r.payload.end());
        Bytes reply;
        if (std::optional<nkrsim::Refusal> why = checkCommand(report.data(), report.size())) {
            refuse(u, *why, r.payload.data(), r.payload.size());
            return std::nullopt;
        }
        if (!runCommand(u, report.data(), report.size(), reply)) return std::nullopt;
        // Echo and data exactly where a USB reply has them, seen from frame byte 1.
        return Answer{0, Bytes(reply.begin() + 3, reply.begin() + kInputReportLen)};
    }
    case kCmdExtended: return extended(u, r.payload);
    default: return std::nullopt;
    }
}

// Queues the answer frames, with whatever one-shot faults are armed.
void queueAnswer(Manager& m, Unit& u, uint8_t sequence, const Answer& a)
{
    int waits = 0;
    if (u.newConnectionWaits) {
        m.frames.push_back({responseFrame(sequence, kNewConnection, {0, 0, 0}), 0});
        waits = *u.newConnectionWaits;
        u.newConnectionWaits.reset();
    }
    if (u.staleFirst) {
        m.frames.push_back({responseFrame(static_cast<uint8_t>(sequence - 1), a.status, a.body), waits});
        waits = 0;
        u.staleFirst = false;
    }
    Bytes frame = responseFrame(sequence, u.statusOverride.value_or(a.status), a.body);
    u.statusOverride.reset();
    if (u.notifyEvent) {
        frame = {0x02, lengthByte(5, false), sequence, *u.notifyEvent};
        frame.push_back(checksum(frame, frame.size()));
        u.notifyEvent.reset();
    }
    if (u.corruptChecksum > 0) {
        --u.corruptChecksum;
        ++frame.back();
    }
    if (u.rawAnswer) {
        frame = *u.rawAnswer;
        u.rawAnswer.reset();
    }
    m.frames.push_back({frame, waits});
}

void copyText(char* out, size_t size, const std::string& text)
{
    std::snprintf(out, size, "%s", text.c_str());
}

}  // namespace

extern "C" {

void* ble_manager_create()
{
    auto guard = lockWorld();
    auto m = std::make_unique<Manager>();
    Manager* handle = m.get();
    world().managers[handle] = std::move(m);
    return handle;
}

void ble_manager_destroy(void* mgr)
{
    {
        auto guard = lockWorld();
        world().managers.erase(static_cast<Manager*>(mgr));
    }
    forgetConnectionEvents(mgr);  // outside the lock: a delivery may be calling in
}

int32_t ble_manager_scan(void* mgr, unsigned timeout, BleScanRecord* records, int capacity)
{
    (void)timeout;
    auto guard = lockWorld();
    if (managerOf(mgr) == nullptr || records == nullptr || !world().bleSupported) return 0;
    int count = 0;
    for (auto& [id, u] : world().units) {
        if (count >= capacity) break;
        if (!u->spec.ble || !u->plugged) continue;
        BleScanRecord& r = records[count++];
        std::memset(&r, 0, sizeof r);
        copyText(r.name, sizeof r.name, u->bleName);
        copyText(r.extra, sizeof r.extra, u->st.typeText);
        copyText(r.address, sizeof r.address, u->bleAddress);
        r.rssi = -60;
    }
    return count;
}

int32_t ble_manager_connect(void* mgr, const char* id, const char* second)
{
    (void)second;
    auto guard = lockWorld();
    Manager* m = managerOf(mgr);
    if (m == nullptr || id == nullptr) return -1;
    for (auto& [unitId, u] : world().units) {
        if (!u->spec.ble || (u->bleName != id && strcasecmp(u->bleAddress.c_str(), id) != 0))
            continue;
        if (!u->plugged) return -2;
        if (u->refuseConnect) return -3;
        m->connected = unitId;
        m->frames.clear();
        return 0;
    }
    return -1;
}

int32_t ble_manager_disconnect(void* mgr)
{
    auto guard = lockWorld();
    if (Manager* m = managerOf(mgr)) {
        m->connected = -1;
        m->frames.clear();
    }
    return 0;
}

int32_t ble_manager_receive(void* mgr, unsigned a, unsigned b)
{
    (void)mgr;
    (void)a;
    (void)b;
    return 0;
}

bool ble_manager_send(void* mgr, const uint8_t* data, unsigned count, unsigned a, unsigned b)
{
    (void)a;
    (void)b;
    auto guard = lockWorld();
    Manager* m = managerOf(mgr);
    Unit* u = m ? connectedUnit(*m) : nullptr;
    if (u == nullptr || data == nullptr) return false;
    if (u->refuseSend > 0) {
        --u->refuseSend;
        return false;
    }
    Bytes frame(data, data + count);
    u->sentFrames.add(frame);
    // Written, but the unit drops a damaged frame unanswered.
    if (std::optional<nkrsim::Refusal> why = checkRequestFrame(frame)) {
        refuse(*u, *why, frame.data(), frame.size());
        return true;
    }
    const Request request = decodeRequest(frame);
    std::optional<Answer> answer = execute(*u, request);
    if (answer && m->expectAnswer) queueAnswer(*m, *u, request.sequence, *answer);
    return true;
}

bool ble_manager_wait_for_data(void* mgr)
{
    auto guard = lockWorld();
    Manager* m = managerOf(mgr);
    if (m == nullptr) return false;
    if (Unit* u = connectedUnit(*m); u && u->silence > 0) {
        --u->silence;
        return false;
    }
    if (m->frames.empty()) return false;
    if (m->frames.front().waitsBefore > 0) {
        --m->frames.front().waitsBefore;
        return false;
    }
    return true;
}

unsigned ble_manager_get_received_data(void* mgr, uint8_t* buf, unsigned capacity)
{
    auto guard = lockWorld();
    Manager* m = managerOf(mgr);
    if (m == nullptr || buf == nullptr || m->frames.empty()) return 0;
    Bytes frame = std::move(m->frames.front().bytes);
    m->frames.pop_front();
    auto n = static_cast<unsigned>(std::min<size_t>(frame.size(), capacity));
    if (n > 0) std::memcpy(buf, frame.data(), n);
    return n;
}

bool ble_manager_is_ble_supported(void* mgr)
{
    (void)mgr;
    auto guard = lockWorld();
    return world().bleSupported;
}

int ble_manager_get_mac(void* mgr, char* buf, int capacity)
{
    (void)mgr;
    if (buf == nullptr || capacity <= 0) return -1;
    auto guard = lockWorld();
    copyText(buf, static_cast<size_t>(capacity), world().adapterAddress);
    return static_cast<int>(std::strlen(buf));
}

void ble_set_is_read(void* mgr, int isRead)
{
    auto guard = lockWorld();
    if (Manager* m = managerOf(mgr)) m->expectAnswer = isRead != 0;
}

void ble_set_connect_state_callback(void* mgr, BleConnectStateFn callback)
{
    auto guard = lockWorld();
    if (Manager* m = managerOf(mgr)) m->callback = callback;
}

}  // extern "C"
