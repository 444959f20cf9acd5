// Reads of one open unit that several commands share: its optional
// features and the live status. Identity (names and numbers) is the host
// layer's, so it reads the same in every program.
#pragma once

#include <string>
#include <vector>

#include "json.h"
#include "nkrhost/identity.h"

namespace nkrtool {

using nkrhost::Firmware;
using nkrhost::Identity;
using nkrhost::readFirmware;

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

struct Reading {
    int positionCode = -1;
    int position = 0;
    int movingCode = -1;
    bool moving = false, handMoving = false;
    int temperatureCode = -1;
    double temperature = 0;  // degrees Celsius, rounded to 0.01
};
Reading readStatus(int id);

}  // namespace nkrtool
