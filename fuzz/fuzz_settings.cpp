// The settings store loading arbitrary file content: the position restore and
// save of a device object, and direct queries with a bounded output.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

#include "device/NKR.h"
#include "store/XmlStore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::string file = [] {
        char home[] = "/tmp/nkr-fuzz-home-XXXXXX";
        std::string dir = mkdtemp(home) ? home : "/tmp";
        setenv("HOME", dir.c_str(), 1);
        mkdir((dir + "/.HTX").c_str(), 0700);
        return dir + "/.HTX/NKRconfig.xml";
    }();
    FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    CNKR dev;
    dev.LoadSetting();

    xmlHandle handle{};
    if (XMLOpenKey("NKRconfig.xml", "software\\HTX_Drevomat", &handle)) {
        int type = 0, len = 0, attr = 0;
        unsigned char value[4];
        XMLQueryValueEx(&handle, "Position", &attr, &type, value, &len, sizeof value);
        XMLCloseKey(&handle);
    }
    dev.SaveSetting();
    return 0;
}
