// Exports of the firmware update over USB and Bluetooth.
#include "CallFrame.h"
#include "Export.h"

using nkrapi::framed;
using nkrapi::Link;

NKR_EXPORT int NKRHidStartUpdate(int id)
{
    return framed(id, 40, Link::UsbOnly, "NKRHidStartUpdate", nullptr,
                  [](CNKR* d, bool) { return d->HIDStartUpdate(); });
}

NKR_EXPORT int NKRHidWriteUpdateFile(int id, _NKR_HID_FILE_BUF block)
{
    return framed(id, 41, Link::UsbOnly, "NKRHidWriteUpdateFile", nullptr,
                  [&](CNKR* d, bool) { return d->HIDWriteUpdateFile(block); });
}

NKR_EXPORT int NKRHidEndUpdate(int id)
{
    return framed(id, 42, Link::UsbOnly, "NKRHidEndUpdate", nullptr,
                  [](CNKR* d, bool) { return d->HIDEndUpdate(); });
}

// The Bluetooth update steps take no slot lock: ids below 50 are refused (2),
// an empty slot gives 53.
NKR_EXPORT int NKRBLEStartUpdate(int id, int size)
{
    if (id < NKR_BLE_FIRST_ID) return NKR_ERROR_INVALID_ID;
    return nkrapi::bleBranch(id, "NKRBLEStartUpdate", "Start update failed.\n",
                             [=](CNKR* d, bool) { return d->BLEStartUpdate(size); });
}

NKR_EXPORT int NKRBLEWriteUpdateFile(int id, _NKR_BLE_FILE_BUF block)
{
    if (id < NKR_BLE_FIRST_ID) return NKR_ERROR_INVALID_ID;
    return nkrapi::bleBranch(id, "NKRBLEWriteUpdateFile", "Write update file failed. err:%d\n",
                             [&](CNKR* d, bool) { return d->BLEWriteUpdateFile(block); });
}
