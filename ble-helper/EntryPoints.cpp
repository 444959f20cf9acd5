// The C entry points the library resolves with dlsym. Each one is a thin
// shell: no exception and no D-Bus error gets past it.
#include <cstdio>
#include <cstring>

#include "Adapter.h"
#include "BlueShimErrors.h"
#include "DeviceLink.h"
#include "Manager.h"
#include "../src/ble/BlueShimExports.h"

using blueshim::Manager;

namespace {

Manager* managerOf(void* mgr) { return static_cast<Manager*>(mgr); }

bool linkUp(const Manager& m) { return m.link.ready && m.link.connected; }

}  // namespace

extern "C" {

void* ble_manager_create()
{
    try {
        std::string error;
        Manager* mgr = Manager::create(error);
        if (mgr == nullptr && blueshim::debugEnabled()) {
            std::fprintf(stderr, "BlueShim: %s\n", error.c_str());
        }
        return mgr;
    } catch (...) {
        return nullptr;
    }
}

void ble_manager_destroy(void* handle)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return;
    }
    try {
        blueshim::disconnectUnit(*mgr);
        if (mgr->loop && mgr->loop->onLoopThread()) {
            // Destroyed from its own connection callback: the event thread
            // finishes the handler, then frees the manager.
            mgr->loop->exitAndThen([mgr] { delete mgr; });
            return;
        }
        delete mgr;
    } catch (...) {
    }
}

bool ble_manager_is_ble_supported(void* handle)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return false;
    }
    try {
        blueshim::ObjectTree tree;
        std::string adapterPath;
        return blueshim::usableAdapter(*mgr, tree, adapterPath) == blueshim::kConnectOk;
    } catch (...) {
        return false;
    }
}

int32_t ble_manager_scan(void* handle, unsigned timeout, BleScanRecord* records, int capacity)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return -1;
    }
    try {
        blueshim::ObjectTree tree;
        std::string adapterPath;
        if (int r = blueshim::usableAdapter(*mgr, tree, adapterPath); r != blueshim::kConnectOk) {
            return r;
        }
        blueshim::discover(*mgr, adapterPath, std::chrono::milliseconds(timeout), nullptr);
        if (records == nullptr || capacity <= 0) {
            return 0;
        }
        blueshim::CallError error;
        if (!mgr->withBus([&](sd_bus* bus) { return blueshim::getManagedObjects(bus, tree, error); })) {
            mgr->lastError.set("BlueZ does not answer: " + error.text);
            return blueshim::kNoAdapter;
        }
        return blueshim::collectUnits(tree, adapterPath, records, capacity);
    } catch (...) {
        return -1;
    }
}

int32_t ble_manager_connect(void* handle, const char* id, const char* /*second*/)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return blueshim::kNoAdapter;
    }
    if (id == nullptr || *id == '\0') {
        mgr->lastError.set("connect: no name or address given");
        return blueshim::kNotFound;
    }
    try {
        return blueshim::connectUnit(*mgr, id);
    } catch (...) {
        mgr->unlink();
        return blueshim::kConnectRefused;
    }
}

int32_t ble_manager_disconnect(void* handle)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return -1;
    }
    try {
        return blueshim::disconnectUnit(*mgr);
    } catch (...) {
        return -1;
    }
}

int32_t ble_manager_receive(void*, unsigned, unsigned) { return 0; }

bool ble_manager_send(void* handle, const uint8_t* data, unsigned count, unsigned, unsigned)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr || (data == nullptr && count > 0)) {
        return false;
    }
    try {
        return blueshim::sendToUnit(*mgr, data, count);
    } catch (...) {
        return false;
    }
}

bool ble_manager_wait_for_data(void* handle)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return false;
    }
    try {
        std::unique_lock lock(mgr->stateMutex);
        // Wakes for a notification, for the link going down, and for what the
        // assembler has due (an ambiguous frame nothing continued, a frame
        // cut short), so nothing waits longer than it must.
        const auto end = std::chrono::steady_clock::now() + mgr->waitTimeout;
        for (;;) {
            mgr->frames.expire(std::chrono::steady_clock::now());
            if (!mgr->frames.empty() || !linkUp(*mgr)) break;
            auto until = end;
            if (const auto due = mgr->frames.deadline()) until = std::min(until, *due);
            if (std::chrono::steady_clock::now() >= end) break;
            mgr->changed.wait_until(lock, until);
        }
        return !mgr->frames.empty();
    } catch (...) {
        return false;
    }
}

unsigned ble_manager_get_received_data(void* handle, uint8_t* buf, unsigned capacity)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr || buf == nullptr) {
        return 0;
    }
    try {
        std::lock_guard lock(mgr->stateMutex);
        return static_cast<unsigned>(mgr->frames.pop(buf, capacity));
    } catch (...) {
        return 0;
    }
}

int ble_manager_get_mac(void* handle, char* buf, int capacity)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr || buf == nullptr || capacity <= 0) {
        return -1;
    }
    try {
        blueshim::ObjectTree tree;
        blueshim::CallError error;
        if (!mgr->withBus([&](sd_bus* bus) { return blueshim::getManagedObjects(bus, tree, error); })) {
            mgr->lastError.set("BlueZ does not answer: " + error.text);
            return -1;
        }
        std::string adapterPath = blueshim::findAdapter(tree, mgr->adapterName);
        if (adapterPath.empty()) {
            mgr->lastError.set("no Bluetooth adapter");
            return -1;
        }
        const auto& props = tree[adapterPath][blueshim::kAdapterIface];
        auto it = props.find("Address");
        if (it == props.end() || it->second.text.empty()) {
            return -1;
        }
        std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(capacity) - 1, it->second.text.size());
        std::memcpy(buf, it->second.text.data(), n);
        buf[n] = '\0';
        return 0;
    } catch (...) {
        return -1;
    }
}

void ble_set_is_read(void* handle, int isRead)
{
    // Recorded only: stale answers stay queued for the exchange to discard.
    if (Manager* mgr = managerOf(handle)) {
        std::lock_guard lock(mgr->stateMutex);
        mgr->isRead = isRead;
    }
}

void ble_set_connect_state_callback(void* handle, BleConnectStateFn callback)
{
    if (Manager* mgr = managerOf(handle)) {
        std::lock_guard lock(mgr->stateMutex);
        mgr->callback = callback;
    }
}

const char* ble_manager_last_error(void* handle)
{
    Manager* mgr = managerOf(handle);
    if (mgr == nullptr) {
        return "";
    }
    try {
        return mgr->lastError.snapshot();
    } catch (...) {
        return "";
    }
}

}  // extern "C"
