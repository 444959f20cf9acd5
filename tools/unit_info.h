// Reads of one open unit that several commands share: identity, controls
// (optional features) and the live status.
#pragma once

#include <string>
#include <vector>

#include "json.h"

namespace nkrtool {

// Feature ids of the control list.
enum Feature : int {
    kFeatureBleName = 0,
    kFeatureLed = 1,
    kFeatureBuzzer = 2,
    kFeatureType = 3,
    kFeatureBattery = 4,
    kFeatureErrorCodes = 5,
    kFeatureBleUpdate = 6,
    kFeatureUsbUpdate = 7,
};

struct Control {
    int type = 0;
    std::string name, description;
    bool supported = false, writable = false;
};

struct Controls {
    int code = 0;  // result of the count query
    std::vector<Control> list;
    // Listed and marked supported.
    bool has(Feature feature) const;
};
Controls readControls(int id);
Json controlsJson(const Controls& controls);

struct Firmware {
    int code = -1;
    int major = 0, minor = 0, build = 0;
    int number() const { return major * 100 + minor * 10 + build; }
    std::string text() const;
};
Firmware readFirmware(int id);

struct Identity {
    int propertyCode = 0;
    std::string name;   // "NKR" or "NKR(alias)"
    std::string alias;  // empty when none
    int stepRange = 0;
    Firmware firmware;
    int typeCode = -1;
    std::string type;
    int serialCode = -1;
    std::string serial;  // 16 hex digits
};
Identity readIdentity(int id);

struct Status {
    int positionCode = -1;
    int position = 0;
    int movingCode = -1;
    bool moving = false, handMoving = false;
    int temperatureCode = -1;
    double temperature = 0;  // degrees Celsius, rounded to 0.01
};
Status readStatus(int id);

// "3.8.2" style text of a firmware version.
std::string versionText(int major, int minor, int build);

}  // namespace nkrtool
