// The adapter and LE discovery.
#pragma once
#include <chrono>
#include <functional>
#include <string>

#include "Bus.h"
#include "Manager.h"

namespace blueshim {

// Path of the adapter named `wanted` ("hci1"), or of the first adapter when
// `wanted` is empty; empty when there is none.
std::string findAdapter(const ObjectTree& tree, const std::string& wanted);

// Reads the object tree and checks the adapter: 0 with `adapterPath` set, or
// kNoAdapter with the manager's last error set.
int usableAdapter(Manager& mgr, ObjectTree& tree, std::string& adapterPath);

// Devices under `adapterPath` whose Name (or Alias) begins with "NKR".
int collectUnits(const ObjectTree& tree, const std::string& adapterPath, BleScanRecord* records,
                 int capacity);

// Path of the device under `adapterPath` with this address, Name or Alias.
std::string findDevice(const ObjectTree& tree, const std::string& adapterPath, const std::string& id);

// Runs LE discovery for at most `duration`, stopping early when `found`
// (called after each new object BlueZ reports, without locks) says so.
// Discovery is stopped on every way out.
void discover(Manager& mgr, const std::string& adapterPath, std::chrono::milliseconds duration,
              const std::function<bool()>& found);

}  // namespace blueshim
