#include "children.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

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
    char line[2048];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::istringstream in(line);
        std::string kind;
        Sample s;
        in >> kind >> s.key;
        if (kind == "sample") {
            in >> s.ns;
            // name=value counters follow
            for (std::string pair; in >> pair;) {
                const size_t eq = pair.find('=');
                if (eq != std::string::npos) s.counters[pair.substr(0, eq)] = std::strtod(pair.c_str() + eq + 1, nullptr);
            }
            results.add(s);
            std::fputc('.', stderr);
        } else if (kind == "error") {
            std::getline(in >> std::ws, s.error);
            if (s.error.empty()) s.error = "failed";
            results.add(s);
        }
    }
    return pclose(pipe) == 0;
}

}  // namespace nkrbench
