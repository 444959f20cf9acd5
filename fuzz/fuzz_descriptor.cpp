// The report-descriptor scan fed with arbitrary descriptor files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

#include "NKR_focuser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::string file = [] {
        char root[] = "/tmp/nkr-fuzz-sysfs-XXXXXX";
        std::string dir = mkdtemp(root) ? root : "/tmp";
        setenv("NKR_SYSFS_ROOT", dir.c_str(), 1);
        for (const char* sub : {"/class", "/class/hidraw", "/class/hidraw/hidraw0",
                                "/class/hidraw/hidraw0/device"})
            mkdir((dir + sub).c_str(), 0700);
        return dir + "/class/hidraw/hidraw0/device/report_descriptor";
    }();
    FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    int in = -7, out = -7;
    get_hid_report_descriptor_linux_mac(nullptr, "/dev/hidraw0", &in, &out);
    return 0;
}
