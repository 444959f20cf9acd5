#include "sysfs.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace nkrsim::detail {
namespace {

std::string& rootDir()
{
    static std::string* root = new std::string;  // outlives every static destructor
    return *root;
}

std::filesystem::path deviceDir(const std::string& path)
{
    // The SDK names the sysfs node by the path without its first five characters.
    std::string name = path.size() > 5 ? path.substr(5) : path;
    return std::filesystem::path(rootDir()) / "class" / "hidraw" / name / "device";
}

// Made before any thread exists, so setenv is safe.
__attribute__((constructor)) void makeSysfsRoot()
{
    char dir[] = "/tmp/nkrsXXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    rootDir() = dir;
    setenv("NKR_SYSFS_ROOT", dir, 1);
}

__attribute__((destructor)) void removeSysfsRoot()
{
    if (rootDir().empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(rootDir(), ec);
}

}  // namespace

std::vector<uint8_t> defaultDescriptor(int outputLen)
{
    // No data byte may equal an item prefix that the SDK's byte scan acts on
    // (0x75, 0x95, 0x85, 0x81, 0x91).
    auto count = static_cast<uint8_t>(outputLen > 1 ? outputLen - 1 : 15);
    return {
        0x06, 0x00, 0xFF,  // Usage Page (vendor 0xFF00)
        0x09, 0x01,        // Usage 1
        0xA1, 0x01,        // Collection (Application)
        0x85, 0x01,        //   Report ID 1
        0x09, 0x01,        //   Usage 1
        0x15, 0x00,        //   Logical Minimum 0
        0x26, 0xFF, 0x00,  //   Logical Maximum 255
        0x75, 0x08,        //   Report Size 8
        0x95, 0x10,        //   Report Count 16
        0x81, 0x02,        //   Input (data, variable, absolute)
        0x85, 0x03,        //   Report ID 3
        0x09, 0x01,        //   Usage 1
        0x75, 0x08,        //   Report Size 8
        0x95, count,       //   Report Count
        0x91, 0x02,        //   Output (data, variable, absolute)
        0xC0,              // End Collection
    };
}

void writeDescriptor(const std::string& path, const std::vector<uint8_t>& descriptor,
                     bool readable)
{
    if (rootDir().empty()) return;
    if (!readable) {
        removeDescriptor(path);
        return;
    }
    std::error_code ec;
    std::filesystem::path dir = deviceDir(path);
    std::filesystem::create_directories(dir, ec);
    std::ofstream out(dir / "report_descriptor", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(descriptor.data()),
              static_cast<std::streamsize>(descriptor.size()));
}

void removeDescriptor(const std::string& path)
{
    if (rootDir().empty()) return;
    std::error_code ec;
    std::filesystem::remove(deviceDir(path) / "report_descriptor", ec);
}

const std::string& sysfsRoot() { return rootDir(); }

}  // namespace nkrsim::detail
