// A stand-in for the USB transport of chosen handles: what the library sends
// on them is taken, and every read returns the unit's status report, straight
// from memory. It shares nothing between handles (the simulator serialises
// every transfer on one world lock), so host threads on different units meet
// only inside the library. Every other handle goes on to the simulator.
#pragma once

#include <hidapi/hidapi.h>

#include <cstdint>
#include <vector>

namespace nkrbench::standin {

// Serves dev from now on, answering every read with reply; false when no
// room is left.
bool serve(hid_device* dev, const std::vector<uint8_t>& reply);
// Hands every served handle back to the simulator.
void stopAll();

}  // namespace nkrbench::standin
