// A private fake sysfs tree that holds the report descriptor of every
// simulated unit where the SDK looks for it ($NKR_SYSFS_ROOT).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nkrsim::detail {

// Vendor-page descriptor: report 1 input of 16 bytes, report 3 output of
// outputLen - 1 bytes.
std::vector<uint8_t> defaultDescriptor(int outputLen);
// Writes (or, when not readable, removes) the descriptor file of a unit path
// such as "/dev/nkrsim0".
void writeDescriptor(const std::string& path, const std::vector<uint8_t>& descriptor,
                     bool readable);
void removeDescriptor(const std::string& path);
// Root of the fake tree ("" when it could not be made).
const std::string& sysfsRoot();

}  // namespace nkrsim::detail
