// Exports of the Bluetooth sessions: scan, connect, pair, events, raw data.
// None takes a USB slot lock; a Bluetooth slot's object is guarded against
// disconnection while a call is inside it.
#include <cstring>
#include <mutex>

#include "../ble/IBluetoothLEManager.h"
#include "CallFrame.h"
#include "Export.h"

int g_BleStartId = NKR_BLE_FIRST_ID;

namespace {
// Runs op on the object of a Bluetooth slot under the slot's shared guard;
// returns empty when the slot holds nothing.
template <typename Op>
int withBleSlot(int id, int emptyCode, Op&& op)
{
    if (!slotInRange(id)) return emptyCode;
    std::shared_lock<std::shared_mutex> guard(g_bleSlotGuard[id]);
    CNKR* dev = pNKR[id].load();
    if (dev == nullptr) return emptyCode;
    return op(dev);
}
}  // namespace

NKR_EXPORT int NKRBLEScan(int timeout, _BLE_DEVICE_INFO* devices, int capacity, int* count)
{
    NKR_NONNULL(count);
    if (capacity < 0 || (capacity > 0 && devices == nullptr)) return NKR_ERROR_INVALID_VALUE;
    CNKR scanner;
    return scanner.BLEScan(timeout, devices, capacity, count);
}

NKR_EXPORT int NKRBLEConnect(const char* name, const char* address, int* id)
{
    NKR_NONNULL(name);
    NKR_NONNULL(address);
    NKR_NONNULL(id);
    // Ids are handed out as a stack from 50 upward; past the table there is no room.
    if (g_BleStartId >= NKR_MAX_SLOTS) return NKR_ERROR_BLE_CONNECT;
    int slot = g_BleStartId;
    *id = slot;
    ++g_BleStartId;
    std::unique_lock<std::shared_mutex> guard(g_bleSlotGuard[slot]);
    NKRDbgPrint("NKRBLEConnect", "NKRBLEConnect[%d] is %p\n", slot, static_cast<void*>(pNKR[slot].load()));
    CNKR* dev = pNKR[slot].load();
    if (dev == nullptr) {
        dev = new (std::nothrow) CNKR();
        if (dev == nullptr) {
            --g_BleStartId;
            return NKR_ERROR_GENERAL;
        }
        pNKR[slot].store(dev);
    }
    int rc = dev->BLEConnect(name, address);
    if (rc == NKR_SUCCESS) return NKR_SUCCESS;
    pNKR[slot].store(nullptr);
    delete dev;
    --g_BleStartId;
    return rc;
}

NKR_EXPORT int NKRBLEDisconnect(int id)
{
    if (!slotInRange(id)) return NKR_ERROR_INVALID_ID;
    CNKR* dev = nullptr;
    int rc = NKR_SUCCESS;
    {
        std::unique_lock<std::shared_mutex> guard(g_bleSlotGuard[id]);
        dev = pNKR[id].load();
        NKRDbgPrint("NKRBLEDisconnect", "NKRBLEDisconnect[%d] is %p\n", id, static_cast<void*>(dev));
        if (dev == nullptr) return NKR_ERROR_INVALID_ID;
        rc = dev->BLEDisconnect();
        pNKR[id].store(nullptr);
        --g_BleStartId;
    }
    // Deleted outside the guard: the destructor waits for a connection report
    // in progress, and that report may be calling an export for this id.
    delete dev;
    return rc;
}

NKR_EXPORT int NKRBLEPair(int id)
{
    return withBleSlot(id, NKR_ERROR_BLE_NOT_OPEN, [](CNKR* d) {
        return d->m_pBleManager ? d->BLEPair() : NKR_ERROR_BLE_NOT_OPEN;
    });
}

NKR_EXPORT int NKRBLEClearPair(int id)
{
    return withBleSlot(id, NKR_ERROR_BLE_NOT_OPEN, [](CNKR* d) {
        return d->m_pBleManager ? d->BLEClearPair() : NKR_ERROR_BLE_NOT_OPEN;
    });
}

NKR_EXPORT int NKRBLERegPairStateCallback(int id, NKR_PAIR_STATE_CALLBACK callback)
{
    return withBleSlot(id, NKR_ERROR_INVALID_ID, [=](CNKR* d) {
        if (callback == nullptr) return static_cast<int>(NKR_ERROR_NULL_CALLBACK);
        d->BLERegPairStateCallback(callback);
        return static_cast<int>(NKR_SUCCESS);
    });
}

NKR_EXPORT int NKRBLERegConnStateCallback(int id, NKR_CONN_STATE_CALLBACK callback)
{
    return withBleSlot(id, NKR_ERROR_INVALID_ID, [=](CNKR* d) {
        if (callback == nullptr) return static_cast<int>(NKR_ERROR_NULL_CALLBACK);
        d->BLERegConnStateCallback(callback);
        return static_cast<int>(NKR_SUCCESS);
    });
}

NKR_EXPORT int NKRBLEgetAllInfo(int id, _NKR_ALL_INFO* info)
{
    if (id < NKR_BLE_FIRST_ID) return NKR_ERROR_INVALID_ID;
    NKR_NONNULL(info);
    return withBleSlot(id, NKR_ERROR_BLE_NOT_OPEN, [=](CNKR* d) {
        std::memset(info, 0, sizeof *info);
        int rc = d->BLEGetAllInfo(info);
        if (rc != NKR_SUCCESS) NKRDbgPrint("NKRBLEgetAllInfo", "get nkr all info failed\n");
        return rc;
    });
}

NKR_EXPORT int NKRBLESendData(int id, int unused, unsigned char* data, int length, bool wait,
                              unsigned char* output)
{
    return withBleSlot(id, NKR_ERROR_INVALID_ID, [=](CNKR* d) {
        if (data == nullptr || length < 0 || (wait && output == nullptr))
            return static_cast<int>(NKR_ERROR_INVALID_VALUE);
        // Transfer errors are not reported here: the host sees them in the output.
        d->BLESendData(unused, data, length, wait, output);
        return static_cast<int>(NKR_SUCCESS);
    });
}
