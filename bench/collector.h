// Collects the samples of the benchmark runs (every repetition) and gives
// their medians.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace nkrbench {

// The figures of one repetition of one benchmark.
struct Sample {
    std::string key;           // benchmark name and arguments, e.g. "scale/scan_open_read_close/16"
    double ns = -1;            // time per iteration
    std::map<std::string, double> counters;  // the benchmark's own counters
    std::string error;         // set when the run failed
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

    // Medians over the repetitions of one benchmark; negative when it is
    // missing or failed. Times in nanoseconds.
    double medianNs(const std::string& key) const;
    double medianCounter(const std::string& key, const std::string& counter) const;
    // Median of the per-repetition ratio of two counters (measured side by side).
    double medianRatio(const std::string& key, const std::string& numerator,
                       const std::string& denominator) const;
    const std::map<std::string, std::string>& errors() const { return errors_; }

private:
    template <typename Figure>
    double medianOf(const std::string& key, Figure figure) const;

    std::map<std::string, std::vector<Sample>> samples_;
    std::map<std::string, std::string> errors_;
};

}  // namespace nkrbench
