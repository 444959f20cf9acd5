// Exports of motion, motor settings and temperature.
#include "CallFrame.h"
#include "Export.h"

using nkrapi::framed;
using nkrapi::Link;

NKR_EXPORT int NKRMove(int id, int step)
{
    NKRDbgPrint("NKRMove", "NKRMove-> step:%d\n", step);
    return framed(id, 3, Link::UsbOrBle, "NKRMove", "set move failed\n",
                  [=](CNKR* d, bool ble) { return d->SetStep(step, ble); });
}

NKR_EXPORT int NKRStop(int id)
{
    return framed(id, 4, Link::UsbOrBle, "NKRStop", "set stop move failed. err:%d\n",
                  [](CNKR* d, bool ble) { return d->stopMove(ble); });
}

NKR_EXPORT int NKRIsMoving(int id, bool* moving, bool* handMoving)
{
    NKR_NONNULL(moving);
    return framed(id, 9, Link::UsbOrBle, "NKRIsMoving", "get move state failed\n",
                  [=](CNKR* d, bool ble) { return d->isMoving(moving, handMoving, ble); });
}

NKR_EXPORT int NKRSetSpeed(int id, int speed)
{
    return framed(id, 1, Link::UsbOnly, "NKRSetSpeed", nullptr,
                  [=](CNKR* d, bool) { return d->SetSpeed(speed); });
}

NKR_EXPORT int NKRGetSpeed(int id, int* speed)
{
    NKR_NONNULL(speed);
    return framed(id, 10, Link::UsbOrBle, "NKRGetSpeed", "get speed failed\n",
                  [=](CNKR* d, bool ble) { return d->getSpeed(speed, ble); });
}

NKR_EXPORT int NKRGetPosition(int id, int* step)
{
    NKR_NONNULL(step);
    return framed(id, 19, Link::UsbOrBle, "NKRGetPosition", "get step failed\n",
                  [=](CNKR* d, bool ble) { return d->getStep(step, ble); });
}

NKR_EXPORT int NKRResetPostion(int id, int step)
{
    return framed(id, 11, Link::UsbOrBle, "NKRResetPostion", "reset current step failed\n",
                  [=](CNKR* d, bool ble) { return d->resetStep(step, ble); });
}

NKR_EXPORT int NKRGetTemp(int id, float* temp)
{
    NKR_NONNULL(temp);
    return framed(id, 12, Link::UsbOrBle, "NKRGetTemp", "get temp failed\n",
                  [=](CNKR* d, bool ble) { return d->getTemp(temp, ble); });
}

NKR_EXPORT int NKRSetBeep(int id, bool on)
{
    return framed(id, 14, Link::UsbOrBle, "NKRSetBeep", "set beep state failed\n",
                  [=](CNKR* d, bool ble) { return d->setBeep(on, ble); });
}

NKR_EXPORT int NKRGetBeep(int id, bool* on)
{
    NKR_NONNULL(on);
    return framed(id, 15, Link::UsbOrBle, "NKRGetBeep", "get beep state failed\n",
                  [=](CNKR* d, bool ble) { return d->getBeep(on, ble); });
}

NKR_EXPORT int NKRSetMaxStep(int id, int maxStep)
{
    return framed(id, 17, Link::UsbOrBle, "NKRSetMaxStep", "set max step failed\n",
                  [=](CNKR* d, bool ble) { return d->setMaxStep(maxStep, ble); });
}

NKR_EXPORT int NKRGetMaxStep(int id, int* maxStep)
{
    NKR_NONNULL(maxStep);
    return framed(id, 18, Link::UsbOrBle, "NKRGetMaxStep", "get max step failed\n",
                  [=](CNKR* d, bool ble) { return d->getMaxStep(maxStep, ble); });
}

NKR_EXPORT int NKRStepRange(int id, int* range)
{
    NKR_NONNULL(range);
    return framed(id, 30, Link::UsbOrBle, "NKRStepRange", "set step range failed\n",
                  [=](CNKR* d, bool ble) { return d->getStepRange(range, ble); });
}

NKR_EXPORT int NKRSetBacklash(int id, int backlash)
{
    return framed(id, 19, Link::UsbOrBle, "NKRSetBacklash", "set backlash failed\n",
                  [=](CNKR* d, bool ble) { return d->setBacklash(backlash, ble); });
}

NKR_EXPORT int NKRGetBacklash(int id, int* backlash)
{
    NKR_NONNULL(backlash);
    return framed(id, 20, Link::UsbOrBle, "NKRGetBacklash", "get backlash failed\n",
                  [=](CNKR* d, bool ble) { return d->getBacklash(backlash, ble); });
}

NKR_EXPORT int NKRSetReverse(int id, bool on)
{
    return framed(id, 21, Link::UsbOrBle, "NKRSetReverse", "set reverse failed\n",
                  [=](CNKR* d, bool ble) { return d->setReverse(on, ble); });
}

NKR_EXPORT int NKRGetReverse(int id, bool* on)
{
    NKR_NONNULL(on);
    return framed(id, 22, Link::UsbOrBle, "NKRGetReverse", "get reverse failed\n",
                  [=](CNKR* d, bool ble) { return d->getReverse(on, ble); });
}

NKR_EXPORT int NKRSetMaxForce(int id, int force)
{
    return framed(id, 23, Link::UsbOrBle, "NKRSetMaxForce", "set max force failed\n",
                  [=](CNKR* d, bool ble) { return d->setMaxForce(force, ble); });
}

NKR_EXPORT int NKRGetMaxForce(int id, int* force)
{
    NKR_NONNULL(force);
    return framed(id, 24, Link::UsbOrBle, "NKRGetMaxForce", "get max force failed\n",
                  [=](CNKR* d, bool ble) { return d->getMaxForce(force, ble); });
}
