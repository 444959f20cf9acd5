// Exports of identity, controls, and the status, error and power commands.
#include <cstring>

#include "CallFrame.h"
#include "Export.h"

using nkrapi::framed;
using nkrapi::Link;

NKR_EXPORT int NKRGetFirmwareVersion(int id, unsigned char* major, unsigned char* minor,
                                     unsigned char* build)
{
    NKR_NONNULL(major);
    NKR_NONNULL(minor);
    NKR_NONNULL(build);
    return framed(id, 25, Link::UsbOrBle, "NKRGetFirmwareVersion", "get firmware version failed\n",
                  [=](CNKR* d, bool ble) { return d->getFwVer(major, minor, build, ble); });
}

NKR_EXPORT int NKRGetSerialNumber(int id, _NKR_SN* sn)
{
    NKR_NONNULL(sn);
    return framed(id, 26, Link::UsbOrBle, "NKRGetSerialNumber", "get serial sumber failed\n",
                  [=](CNKR* d, bool ble) { return d->getSerialNumber(sn->SN, 8, ble); });
}

NKR_EXPORT int NKRSetID(int id, _NKR_ID alias)
{
    return framed(id, 27, Link::UsbOrBle, "NKRSetID", "set setAlias sumber failed\n",
                  [&](CNKR* d, bool ble) { return d->setAlias(alias.id, 8, ble); });
}

NKR_EXPORT int NKRGetType(int id, _NKR_TYPE* type)
{
    NKR_NONNULL(type);
    return framed(id, 29, Link::UsbOrBle, "NKRGetType", "get nkr type failed\n",
                  [=](CNKR* d, bool ble) { return d->getType(type, ble); });
}

NKR_EXPORT int NKRGetBLEName(int id, char* name)
{
    NKR_NONNULL(name);
    return framed(id, 30, Link::UsbOnly, "NKRGetBLEName", nullptr,
                  [=](CNKR* d, bool) { return d->getBLEName(name, 16); });
}

NKR_EXPORT int NKRSetBLEName(int id, _NKR_BLE_NAME name)
{
    // A Bluetooth slot sends the text; a USB slot passes the whole record,
    // which the length check refuses: renaming goes over the radio link.
    return framed(id, 31, Link::UsbOrBle, "NKRSetBLEName", "set nkr ble name failed\n",
                  [&](CNKR* d, bool ble) {
                      int len = ble ? static_cast<int>(strnlen(name.name, sizeof name.name))
                                    : static_cast<int>(sizeof name.name);
                      return d->setBLEName(name.name, len, ble);
                  });
}

NKR_EXPORT int NKRGetBatteryInfo(int id, _NKR_BATTERY_INFO* info)
{
    NKR_NONNULL(info);
    return framed(id, 28, Link::UsbOrBle, "NKRGetBatteryInfo", "get battery info failed. err:%d\n",
                  [=](CNKR* d, bool ble) { return d->getBatteryInfo(info, ble); });
}

NKR_EXPORT int NKRSetShippingMode(int id)
{
    return framed(id, 32, Link::UsbOrBle, "NKRSetShippingMode", "set shipping mode failed\n",
                  [](CNKR* d, bool ble) { return d->setShippingMode(ble); });
}

NKR_EXPORT int NKRGetLedState(int id, bool* on)
{
    NKR_NONNULL(on);
    return framed(id, 33, Link::UsbOrBle, "NKRGetLedState", "get LED state failed\n",
                  [=](CNKR* d, bool ble) { return d->getLEDState(on, ble); });
}

NKR_EXPORT int NKRSetLedState(int id, bool on)
{
    return framed(id, 34, Link::UsbOrBle, "NKRSetLedState", "set LED state failed\n",
                  [=](CNKR* d, bool ble) { return d->setLEDState(on, ble); });
}

NKR_EXPORT int NKRGetErrorCode(int id, _NKR_ERROR_MSG* msg)
{
    NKR_NONNULL(msg);
    return framed(id, 37, Link::UsbOrBle, "NKRGetErrorCode", "get err code failed\n",
                  [=](CNKR* d, bool ble) { return d->getErrorCode(msg, ble); });
}

NKR_EXPORT int NKRGetReason(int id, int* reason)
{
    NKR_NONNULL(reason);
    return framed(id, 39, Link::UsbOrBle, "NKRGetReason", "get power off reason failed\n",
                  [=](CNKR* d, bool ble) { return d->getPowerOffReason(reason, ble); });
}

NKR_EXPORT int NKRGetNumOfControls(int id, int* count)
{
    NKR_NONNULL(count);
    return framed(id, 35, Link::UsbOrBle, "NKRGetNumOfControls", "get num of controls failed\n",
                  [=](CNKR* d, bool ble) { return d->getNumOfControls(count, ble); });
}

NKR_EXPORT int NKRGetControlCaps(int id, int index, _NKR_CONTROL_CAPS* caps)
{
    // A null record is the operation's own "bad entry" (1), not an argument error.
    return framed(id, 36, Link::UsbOrBle, "NKRGetControlCaps", "get control capacity failed\n",
                  [=](CNKR* d, bool ble) { return d->getControlCaps(index, caps, ble); });
}
