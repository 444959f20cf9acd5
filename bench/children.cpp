#include "children.h"

#include <cstdio>
#include <cstring>

namespace nkrbench {
namespace {

// Quotes an argument for the shell.
std::string quoted(const std::string& arg)
{
    std::string out = "'";
    for (char c : arg) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

Footprint measureFootprint()
{
    Footprint fp;
    const std::string command = std::string("LD_LIBRARY_PATH=") + quoted(NKR_BENCH_SIM_DIR) + " " +
                                quoted(NKR_BENCH_FOOTPRINT) + " " + quoted(NKR_BENCH_LIBRARY) + " 2>&1";
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fp.error = "cannot start " NKR_BENCH_FOOTPRINT;
        return fp;
    }
    char line[512];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        long value = 0;
        if (std::sscanf(line, "load_bytes=%ld", &value) == 1) fp.loadBytes = value;
        else if (std::sscanf(line, "per_unit_bytes=%ld", &value) == 1) fp.perUnitBytes = value;
        else if (std::sscanf(line, "units=%ld", &value) == 1) fp.units = static_cast<int>(value);
        else fp.error += line;
    }
    if (pclose(pipe) != 0 && fp.error.empty()) fp.error = "load program failed";
    return fp;
}

bool runStandinSuite(const std::vector<std::string>& args, Collector& results)
{
    std::string command = quoted(NKR_BENCH_STANDIN);
    for (const std::string& a : args) {
        command += ' ';
        command += quoted(a);
    }
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        char key[512];
        Sample s;
        if (std::sscanf(line, "sample %511s %lf %lf %lf", key, &s.ns, &s.rate, &s.cpuPerCallNs) == 4) {
            s.key = key;
            results.add(s);
            std::fputc('.', stderr);
        } else if (std::sscanf(line, "error %511s", key) == 1) {
            s.key = key;
            const char* message = std::strstr(line, key) + std::strlen(key);
            s.error = message[0] != '\0' ? message + 1 : "failed";
            if (!s.error.empty() && s.error.back() == '\n') s.error.pop_back();
            results.add(s);
        }
    }
    return pclose(pipe) == 0;
}

}  // namespace nkrbench
