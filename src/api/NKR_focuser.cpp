// Slot registry of the C layer: scanning the USB bus into stable slot ids,
// opening and closing the device object of a slot, and the version exports.
#include <hidapi/hidapi.h>

#include <unistd.h>

#include <cstring>

#include "../device/NKR.h"
#include "../device/Sleep.h"
#include "../log/Log.h"
#include "CallFrame.h"
#include "Registry.h"
#include "UsbIds.h"

#include "Export.h"

char DevPathArray[NKR_MAX_SLOTS][NKR_PATH_LEN];
char DevPathScan[NKR_MAX_SLOTS][NKR_PATH_LEN];
int iConnectedNKR = 0;
std::atomic<CNKR*> pNKR[NKR_MAX_SLOTS];
SlotLockRecord MutexCamPt[NKR_MAX_SLOTS];
std::shared_mutex g_bleSlotGuard[NKR_MAX_SLOTS];

namespace {
const char kSdkVersion[] = "1, 7, 7, 0";

void copyPath(char (&dst)[NKR_PATH_LEN], const char* src)
{
    size_t n = strnlen(src, NKR_PATH_LEN - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Binds a path to an empty slot: the path first, its first byte last, so a
// framed call on another thread never sees a half-written entry as known.
void bindPath(int slot, const char* path)
{
    char (&dst)[NKR_PATH_LEN] = DevPathArray[slot];
    size_t n = strnlen(path, NKR_PATH_LEN - 1);
    if (n > 1) std::memcpy(dst + 1, path + 1, n - 1);
    dst[n > 0 ? n : 1] = '\0';
    std::atomic_ref<char>(dst[0]).store(n > 0 ? path[0] : '\0');
}

void unbindPath(int slot) { std::atomic_ref<char>(DevPathArray[slot][0]).store('\0'); }

bool scannedNow(const char* path)
{
    for (int i = 0; i < iConnectedNKR; ++i)
        if (std::strcmp(DevPathScan[i], path) == 0) return true;
    return false;
}
}  // namespace

namespace nkrapi {
SlotLockHold::SlotLockHold(int id, int k) : id_(id), rec_(MutexCamPt[id]), k_(k)
{
    // The busy mark goes up before locks-ready is read, so NKRClose either
    // sees it and waits, or this call sees the locks gone. It counts callers:
    // several host threads may be inside the same export of one slot.
    rec_.busy[k_].fetch_add(1);
    if (rec_.locksReady.load() == 1) {
        pthread_mutex_lock(&rec_.locks[k_].mutex);
        locked_ = true;
    }
}

SlotLockHold::~SlotLockHold()
{
    if (locked_) pthread_mutex_unlock(&rec_.locks[k_].mutex);
    rec_.busy[k_].fetch_sub(1);
}
}  // namespace nkrapi

NKR_EXPORT const char* get_NKR_SDK_Ver(void) { return kSdkVersion; }
NKR_EXPORT const char* NKRGetSDKVersion(void) { return get_NKR_SDK_Ver(); }

NKR_EXPORT int NKRCheck(int vid, int pid)
{
    for (const nkrapi::UsbId& known : nkrapi::focuserUsbIds())
        if (vid == known.vendor && pid == known.product) return 1;
    return 0;
}

NKR_EXPORT int NKRGetProductIDs(int* pids)
{
    if (pids != nullptr) pids[0] = FOCUSER_USB_PID;
    return 1;
}

NKR_EXPORT int NKRGetNum(void)
{
    iConnectedNKR = 0;
    for (const nkrapi::UsbId& ids : nkrapi::focuserUsbIds()) {
        hid_device_info* list = hid_enumerate(ids.vendor, ids.product);
        for (hid_device_info* d = list; d != nullptr; d = d->next) {
            if (iConnectedNKR >= NKR_MAX_SLOTS) break;  // no room to record more
            if (d->path == nullptr) continue;
            copyPath(DevPathScan[iConnectedNKR], d->path);
            ++iConnectedNKR;
        }
        hid_free_enumeration(list);
    }

    // Close the units that have gone.
    for (int s = 0; s < NKR_MAX_SLOTS; ++s) {
        CNKR* dev = pNKR[s].load();
        if (dev != nullptr && s < NKR_BLE_FIRST_ID && !scannedNow(dev->path())) NKRClose(s);
    }

    // Keep each present unit in its slot; give new ones the lowest free slot.
    bool claimed[NKR_MAX_SLOTS] = {};
    for (int i = 0; i < iConnectedNKR; ++i) {
        int slot = -1;
        for (int s = 0; s < NKR_MAX_SLOTS && slot < 0; ++s)
            if (std::strcmp(DevPathArray[s], DevPathScan[i]) == 0) slot = s;
        if (slot < 0) {
            for (int s = 0; s < NKR_MAX_SLOTS && slot < 0; ++s)
                if (DevPathArray[s][0] == '\0') slot = s;
            if (slot < 0) continue;
            bindPath(slot, DevPathScan[i]);
        }
        claimed[slot] = true;
    }
    for (int s = 0; s < NKR_MAX_SLOTS; ++s)
        if (!claimed[s]) unbindPath(s);
    return iConnectedNKR;
}

NKR_EXPORT int NKRGetID(int index, int* id)
{
    if (index < 0 || index >= iConnectedNKR) return NKR_ERROR_INVALID_INDEX;
    for (int s = 0; s < NKR_MAX_SLOTS; ++s) {
        if (std::strcmp(DevPathArray[s], DevPathScan[index]) == 0) {
            if (id != nullptr) *id = s;
            return NKR_SUCCESS;
        }
    }
    if (id != nullptr) *id = -1;
    return NKR_ERROR_INVALID_INDEX;
}

NKR_EXPORT int NKROpen(int id)
{
    if (!nkrapi::slotKnown(id)) return NKR_ERROR_INVALID_ID;
    if (pNKR[id].load() != nullptr) {
        NKRDbgPrint("NKROpen", "focuser of index%d is already opened\n", id);
        return NKR_SUCCESS;
    }
    CNKR* dev = new (std::nothrow) CNKR();
    if (dev == nullptr) return NKR_ERROR_GENERAL;
    pNKR[id].store(dev);
    NKR_LOG("ID%d: %s", id, DevPathArray[id]);
    if (!dev->open(DevPathArray[id])) {
        NKRClose(id);
        return NKR_ERROR_REMOVED;
    }
    SlotLockRecord& rec = MutexCamPt[id];
    if (rec.locksReady.load() == 1) return NKR_SUCCESS;
    // The busy counts are left alone: a caller that came while the locks
    // were down is still counted and takes its count back on leaving.
    for (int k = 0; k < NKR_LOCK_COUNT; ++k) InitCriSecNKR(&rec.locks[k]);
    rec.locksReady.store(1);
    return NKR_SUCCESS;
}

NKR_EXPORT int NKRClose(int id)
{
    if (!nkrapi::slotKnown(id)) return NKR_ERROR_INVALID_ID;
    if (pNKR[id].load() == nullptr) return NKR_SUCCESS;
    SlotLockRecord& rec = MutexCamPt[id];
    const bool ready = rec.locksReady.load() == 1;
    if (ready)
        for (int k = 0; k < NKR_LOCK_COUNT; ++k) pthread_mutex_lock(&rec.locks[k].mutex);

    CNKR* dev = pNKR[id].exchange(nullptr);
    if (dev != nullptr) {
        dev->close();
        delete dev;
    }
    NKRDbgPrint("NKRClose", "pNKR deleted\n");
    if (!ready) return NKR_SUCCESS;

    rec.locksReady.store(0);
    NKRDbgPrint("NKRClose", "->\n");
    // Callers that were blocked on a lock run once it is released, find the
    // object gone and leave; only then is their lock destroyed.
    for (int k = 0; k < NKR_LOCK_COUNT; ++k) {
        pthread_mutex_unlock(&rec.locks[k].mutex);
        while (rec.busy[k].load() != 0) {
            NKRDbgPrint("NKRClose", "Slp\n");
            usleep(5000);
        }
        DelCriSecNKR(&rec.locks[k]);
    }
    NKRDbgPrint("NKRClose", "<-\n");
    return NKR_SUCCESS;
}

namespace {
// Appends "(alias)" to the property name when the unit has an alias.
void addAlias(CNKR* dev, bool ble, _NKR_INFO* info)
{
    char alias[9] = {0};
    if (dev->getAlias(alias, 8, ble) != NKR_SUCCESS)
        NKRDbgPrint("NKRGetProperty", "Failed to get alias.");
    if (alias[0] == '\0') return;
    std::strncat(info->Name, "(", sizeof info->Name - std::strlen(info->Name) - 1);
    std::strncat(info->Name, alias, sizeof info->Name - std::strlen(info->Name) - 1);
    std::strncat(info->Name, ")", sizeof info->Name - std::strlen(info->Name) - 1);
    NKR_LOG("Alias Name: %s", info->Name);
}

void fillProperty(CNKR* dev, bool ble, _NKR_INFO* info)
{
    addAlias(dev, ble, info);
    int range = 0;
    if (dev->getStepRange(&range, ble) == NKR_SUCCESS) info->MaxStep = range;
}
}  // namespace

NKR_EXPORT int NKRGetProperty(int id, _NKR_INFO* info)
{
    if (info == nullptr) return NKR_ERROR_INVALID_VALUE;
    info->ID = id;
    std::memset(info->Name, 0, sizeof info->Name);
    std::strcpy(info->Name, "NKR");
    info->MaxStep = 0;

    if (id >= NKR_BLE_FIRST_ID) {
        return nkrapi::bleBranch(id, "NKRGetProperty", nullptr, [&](CNKR* dev, bool ble) {
            fillProperty(dev, ble, info);
            return NKR_SUCCESS;
        });
    }
    if (!nkrapi::slotKnown(id)) return NKR_ERROR_INVALID_ID;
    {
        nkrapi::SlotLockHold hold(id, 11);
        if (CNKR* dev = hold.device()) {
            fillProperty(dev, false, info);
            return NKR_SUCCESS;
        }
    }
    // A closed slot is opened for the query and closed again, so a host can
    // list units it has not opened (and units it cannot open).
    if (NKROpen(id) != NKR_SUCCESS) return NKR_SUCCESS;
    {
        nkrapi::SlotLockHold hold(id, 11);
        if (CNKR* dev = hold.device()) fillProperty(dev, false, info);
    }
    NKRClose(id);
    return NKR_SUCCESS;
}
