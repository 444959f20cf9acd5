// The call frame that every per-device export wraps around its CNKR call.
//
// USB slots (and every id of an export without a Bluetooth branch): range and
// path check (2), busy flag and slot lock k, object check (9), the call,
// release. Bluetooth slots (ids above 49, exports with a Bluetooth branch):
// object check (53), the call with the link flag set, the export's failure
// message on a non-zero result.
#pragma once
#include <mutex>
#include <shared_mutex>

#include "../device/NKR.h"
#include "Registry.h"

// Output pointers are checked before anything is sent.
#define NKR_NONNULL(p) \
    if ((p) == nullptr) return NKR_ERROR_INVALID_VALUE

namespace nkrapi {

enum class Link { UsbOnly, UsbOrBle };

// Holds slot lock k of a USB slot for the duration of a framed call.
class SlotLockHold {
public:
    SlotLockHold(int id, int k);
    ~SlotLockHold();
    SlotLockHold(const SlotLockHold&) = delete;
    SlotLockHold& operator=(const SlotLockHold&) = delete;

    // The slot's object, or null. Without the slot lock (the slot's locks are
    // not ready: it is closed, or an open is still under way) there is none
    // to use: nothing would keep a close from destroying it meanwhile.
    CNKR* device() const { return locked_ ? pNKR[id_].load() : nullptr; }

private:
    int id_;
    SlotLockRecord& rec_;
    int k_;
    bool locked_ = false;
};

// True when the USB slot has a device path. Its first byte is read
// atomically: a scan on the host's registry thread may be rewriting the table
// while framed calls run on other threads.
inline bool slotKnown(int id)
{
    return slotInRange(id) && std::atomic_ref<char>(DevPathArray[id][0]).load() != '\0';
}

template <typename Op>
int bleBranch(int id, const char* name, const char* failMsg, Op&& op)
{
    if (id >= NKR_MAX_SLOTS) return NKR_ERROR_BLE_NOT_OPEN;
    std::shared_lock<std::shared_mutex> guard(g_bleSlotGuard[id]);
    CNKR* dev = pNKR[id].load();
    if (dev == nullptr) return NKR_ERROR_BLE_NOT_OPEN;
    int rc = op(dev, true);
    if (rc != NKR_SUCCESS && failMsg != nullptr) NKRDbgPrint(name, failMsg, rc);
    return rc;
}

template <typename Op>
int usbBranch(int id, int k, Op&& op)
{
    if (!slotKnown(id)) return NKR_ERROR_INVALID_ID;
    SlotLockHold hold(id, k);
    CNKR* dev = hold.device();
    if (dev == nullptr) return NKR_ERROR_CLOSED;
    return op(dev, false);
}

// op is called as op(CNKR*, bool ble) and returns an _NKR_ERROR_CODE.
template <typename Op>
int framed(int id, int k, Link link, const char* name, const char* failMsg, Op&& op)
{
    if (link == Link::UsbOrBle && id >= NKR_BLE_FIRST_ID)
        return bleBranch(id, name, failMsg, static_cast<Op&&>(op));
    return usbBranch(id, k, static_cast<Op&&>(op));
}

}  // namespace nkrapi
