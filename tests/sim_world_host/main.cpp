// A tiny program over the simulator for the shared-world tests: each argument
// group is one step, run in order in this process, e.g.
//   sim_world_host move 0 30400 show 0
// "show" prints the unit's state as key=value words on one line.
#include <hidapi/hidapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nkr_sim.h"

namespace {

void show(int unit)
{
    nkrsim::UnitState s = nkrsim::state(unit);
    std::string serial;
    for (uint8_t b : s.serial) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02X", b);
        serial += hex;
    }
    std::printf("position=%d target=%d run=%d max=%d fw=%d%d%d alias=[%s] serial=%s errors_cleared=%d\n",
                s.position, s.target, s.runState, s.maxStep, s.fwMajor, s.fwMinor, s.fwBuild,
                s.alias.c_str(), serial.c_str(), s.clearErrorCount);
}

// A command report through the USB front, as the SDK would send it.
bool sendUsb(int unit, std::initializer_list<uint8_t> bytes)
{
    hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
    if (dev == nullptr) return false;
    unsigned char report[16] = {};
    size_t i = 0;
    for (uint8_t b : bytes) report[i++] = b;
    bool sent = hid_send_feature_report(dev, report, sizeof report) >= 0;
    hid_close(dev);
    return sent;
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        std::string step = argv[i];
        auto number = [&] { return i + 1 < argc ? std::atoi(argv[++i]) : 0; };
        if (step == "show") {
            show(number());
        } else if (step == "move") {
            int unit = number(), target = number();
            nkrsim::update(unit, [&](nkrsim::UnitState& s) {
                s.target = target;
                s.runState = 1;
            });
        } else if (step == "max") {
            int unit = number(), max = number();
            nkrsim::update(unit, [&](nkrsim::UnitState& s) { s.maxStep = max; });
        } else if (step == "alias" && i + 2 < argc) {
            int unit = number();
            const char* text = argv[++i];
            std::initializer_list<uint8_t> head = {0x03, 0x7E, 0x5A, 0x0D};
            unsigned char report[16] = {};
            std::memcpy(report, head.begin(), head.size());
            std::strncpy(reinterpret_cast<char*>(report + 4), text, 11);
            hid_device* dev = hid_open_path(nkrsim::usbPath(unit).c_str());
            if (dev == nullptr || hid_send_feature_report(dev, report, sizeof report) < 0) return 3;
            hid_close(dev);
        } else if (step == "firmware") {
            // Start an update and finish it at once: the unit reports 3.9.0.
            int unit = number();
            if (!sendUsb(unit, {0x03, 0x7E, 0x5A, 0x0F}) || !sendUsb(unit, {0x03, 0x7E, 0x5A, 0x12}))
                return 3;
        } else if (step == "bump") {
            // Many separate changes, each under its own lock.
            int unit = number(), count = number();
            for (int k = 0; k < count; ++k)
                nkrsim::update(unit, [](nkrsim::UnitState& s) { ++s.clearErrorCount; });
        } else if (step == "forget") {
            std::string message;
            if (!nkrsim::forgetSharedState(message)) {
                std::fprintf(stderr, "forget: %s\n", message.c_str());
                return 4;
            }
        } else {
            std::fprintf(stderr, "unknown step %s\n", step.c_str());
            return 2;
        }
    }
    return 0;
}
