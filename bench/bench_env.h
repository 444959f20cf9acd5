// What every benchmark shares: a process set up like a host program run
// against the simulator, and quick ways to put simulated units in front of
// the library.
#pragma once

#include <string>
#include <vector>

#include "nkr_sim.h"

namespace nkrbench {

// Private HOME (on tmpfs when there is one), the simulator as Bluetooth
// helper, and a no-op sleep hook in place of the library's pauses.
void prepareProcess();
// Closes every slot and removes the private HOME.
void finishProcess();

// Closes every slot and empties the simulated world (manual clock at 0).
void resetWorld();

nkrsim::UnitSpec usbSpec();
nkrsim::UnitSpec bleSpec();

// Adds count USB units, scans once and opens them all; slot ids in unit
// order, empty when any step failed.
std::vector<int> openUsbUnits(int count, std::vector<nkrsim::UnitId>* units = nullptr);
// Connects and pairs a Bluetooth unit through the exports; its slot id, or -1.
int connectBleUnit(nkrsim::UnitId unit);
// Closes every USB slot and disconnects every Bluetooth slot.
void closeAll();

// Starts one host thread per id, lets each read its unit's position
// perThread times through the export, and joins them; false when a read failed.
bool runStatusReads(const std::vector<int>& ids, int perThread);

}  // namespace nkrbench
