// The report-descriptor scan behind open(): descriptor files written to a
// private sysfs tree.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "NKR_focuser.h"

namespace {
namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// Vendor page, report 1 input of 16 bytes, report 3 output of n bytes.
Bytes focuserDescriptor(unsigned char outputCount)
{
    return {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01,                     //
            0x85, 0x01, 0x75, 0x08, 0x95, 0x10, 0x09, 0x01, 0x81, 0x02,   // input
            0x85, 0x03, 0x75, 0x08, 0x95, outputCount, 0x09, 0x01, 0x91, 0x02,  // output
            0xC0};
}

TEST(DeviceDescriptor, ReportSizeAndCountGiveTheLengthsOfReports1And3)
{
    // A sysfs tree of our own in the process's HOME (each test runs in a
    // process of its own, so the variable goes with it).
    const fs::path root = fs::path(std::getenv("HOME")) / "sysfs";
    setenv("NKR_SYSFS_ROOT", root.c_str(), 1);
    auto writeDescriptor = [&](const std::string& node, const Bytes& d) {
        const fs::path dir = root / "class" / "hidraw" / node / "device";
        fs::create_directories(dir);
        std::ofstream(dir / "report_descriptor", std::ios::binary)
            .write(reinterpret_cast<const char*>(d.data()), static_cast<std::streamsize>(d.size()));
    };

    struct Case {
        const char* why;
        std::string node;
        std::optional<Bytes> file;  // nullopt: no descriptor file for the node
        int result, in, out;        // lengths start at -1
    };
    const std::string longName(32, 'h');
    const Case cases[] = {
        {"64-byte output", "hidraw0", focuserDescriptor(63), 0, 17, 64},
        {"16-byte output", "hidraw1", focuserDescriptor(15), 0, 17, 16},
        // Items of other report ids do not count; 12-bit sizes round down to 1 byte.
        {"other ids, odd size", "hidraw2",
         Bytes{0x85, 0x02, 0x75, 0x08, 0x95, 0x20, 0x81, 0x02, 0x91, 0x02, 0x85, 0x03, 0x75, 0x0C, 0x95, 0x05,
               0x91, 0x02},
         0, -1, 6},
        // Logical Minimum 0x81 (-127) under report 1 is taken for an Input item;
        // the 0x91 consumed as Report Count data is not an Output item.
        {"data bytes scanned as items", "hidraw3",
         Bytes{0x85, 0x01, 0x75, 0x08, 0x95, 0x04, 0x15, 0x81, 0x85, 0x03, 0x95, 0x91}, 0, 5, -1},
        // A size/count/id prefix as the last byte ends the scan without reading on.
        {"truncated", "hidraw4", Bytes{0x85, 0x03, 0x75, 0x08, 0x95, 0x07, 0x91, 0x02, 0x75}, 0, -1, 8},
        {"empty", "hidraw5", Bytes{}, 0, -1, -1},
        {"missing", "hidraw9", std::nullopt, -1, -1, -1},
        // A node name too long for its 32-character room is refused, not truncated.
        {"name of 32", longName, focuserDescriptor(63), -1, -1, -1},
        {"name of 31", longName.substr(1), focuserDescriptor(63), 0, 17, 64},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        if (c.file) writeDescriptor(c.node, *c.file);
        int in = -1, out = -1;
        EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, ("/dev/" + c.node).c_str(), &in, &out), c.result);
        EXPECT_EQ(in, c.in);
        EXPECT_EQ(out, c.out);
    }

    int in = -1, out = -1;
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, "/dev", &in, &out), -1);
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, nullptr, &in, &out), -1);
    // Null length pointers are skipped.
    EXPECT_EQ(get_hid_report_descriptor_linux_mac(nullptr, "/dev/hidraw0", nullptr, nullptr), 0);
}

}  // namespace
