// Every answer parser of the USB link fed with arbitrary input reports: the
// firmware version read at open, the status report, serial number, alias,
// type, BLE name, error codes, power-off reason, battery block, LED and the
// update start.
#include <cstdint>
#include <cstdlib>

#include "FakeHid.h"
#include "FuzzInput.h"
#include "device/NKR.h"
#include "device/Sleep.h"

namespace {
void noSleep(unsigned) {}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool once = [] {
        setenv("HOME", "/nonexistent-nkr-fuzz-home", 1);  // no settings file
        nkr::setSleepHook(&noSleep);
        return true;
    }();
    (void)once;
    if (size < 1) return 0;
    // The first byte picks the firmware family the object believes it has.
    const uint8_t flags = data[0];
    nkrfuzz::setHidReplies(nkrfuzz::splitChunks(data + 1, size - 1));

    CNKR dev;
    if (!dev.open("/dev/fuzz0")) return 0;
    dev.m_bCanSerial = flags & 1;
    dev.m_bCanFactory = flags & 2;
    dev.fwVersion = (flags & 4) ? 336 : 335;
    dev.m_bThermistor = flags & 8;
    dev.m_bClearErr = flags & 16;

    int i = 0;
    bool b = false, h = false;
    float t = 0;
    unsigned char serial[8], ma, mi, bu;
    char alias[9] = {0};
    char bleName[64] = {0};
    _NKR_TYPE type{};
    _NKR_ERROR_MSG msg{};
    _NKR_BATTERY_INFO battery{};
    dev.getParams(false);
    dev.getStep(&i, false);
    dev.isMoving(&b, &h, false);
    dev.isHandControl(&b, false);
    dev.getTemp(&t, false);
    dev.getSerialNumber(serial, 8, false);
    dev.getAlias(alias, 8, false);
    dev.getFwVer(&ma, &mi, &bu, false);
    dev.getType(&type, false);
    dev.getBLEName(bleName, sizeof bleName);
    dev.getErrorCode(&msg, false);
    dev.getPowerOffReason(&i, false);
    dev.getBatteryInfo(&battery, false);
    dev.getLEDState(&b, false);
    dev.fwVersion = 370;
    dev.HIDStartUpdate();
    dev.HIDEndUpdate();
    return 0;
}
