// Collects the benchmark runs and prints the one table of figures, ratios and
// goals that scripts/bench shows.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace nkrbench {

// Resident memory figures of the separate load program (negative: unknown).
struct Footprint {
    long loadBytes = -1;     // dlopen + scan + first open
    long perUnitBytes = -1;  // each further open unit
    int units = 0;           // units opened in all
    std::string error;
};

// The figure of one repetition of one benchmark.
struct Sample {
    std::string key;    // benchmark name and arguments, e.g. "scale/scan_open_read_close/16"
    double ns = -1;     // time per iteration
    double rate = -1;   // items per second, when the benchmark counts items
    double cpuPerCallNs = -1;  // process CPU time per call, when it counts calls
    std::string error;  // set when the run failed
};

// False for aggregate runs. A single calling thread is timed by its own CPU
// time, which load from elsewhere on a shared machine does not stretch; runs
// that start threads of their own (UseRealTime) by the wall clock.
bool sampleOf(const benchmark::BenchmarkReporter::Run& run, Sample& out);

// Keeps every repetition of every run; prints a dot per run on stderr.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;
    void add(const Sample& sample);

    // Median over repetitions of the real time per iteration, in nanoseconds
    // (negative when the run is missing or failed).
    double medianNs(const std::string& name) const;
    // Median over repetitions of items per second.
    double medianRate(const std::string& name) const;
    // Median over repetitions of the process CPU time per call, in nanoseconds.
    double medianCpuPerCall(const std::string& name) const;
    const std::map<std::string, std::string>& errors() const { return errors_; }

private:
    std::map<std::string, std::vector<double>> ns_;
    std::map<std::string, std::vector<double>> rate_;
    std::map<std::string, std::vector<double>> cpuPerCall_;
    std::map<std::string, std::string> errors_;
};

// The three load averages of /proc/loadavg, as text.
std::string loadAverage();

// The header (machine, date, conditions) and the table.
void printSummary(const Collector& results, const Footprint& footprint, int repetitions,
                  const std::string& loadBefore, const std::string& loadAfter);

}  // namespace nkrbench
