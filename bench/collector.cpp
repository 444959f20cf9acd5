#include "collector.h"

#include <algorithm>
#include <iostream>

namespace nkrbench {
namespace {

double toNs(double value, benchmark::TimeUnit unit)
{
    switch (unit) {
    case benchmark::kNanosecond: return value;
    case benchmark::kMicrosecond: return value * 1e3;
    case benchmark::kMillisecond: return value * 1e6;
    case benchmark::kSecond: return value * 1e9;
    }
    return value;
}

double median(std::vector<double> v)
{
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

std::string runKey(const benchmark::BenchmarkReporter::Run& run)
{
    std::string key = run.run_name.function_name;
    if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
    return key;
}

}  // namespace

bool sampleOf(const benchmark::BenchmarkReporter::Run& run, Sample& out)
{
    if (run.run_type != benchmark::BenchmarkReporter::Run::RT_Iteration) return false;
    out = Sample{};
    out.key = runKey(run);
    if (run.error_occurred) {
        out.error = run.error_message.empty() ? "failed" : run.error_message;
        return true;
    }
    const bool wall = run.run_name.time_type == "real_time";
    out.ns = toNs(wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime(), run.time_unit);
    for (const auto& [name, counter] : run.counters) out.counters[name] = counter.value;
    return true;
}

bool Collector::ReportContext(const Context& /*context*/) { return true; }

void Collector::ReportRuns(const std::vector<Run>& runs)
{
    Sample sample;
    for (const Run& run : runs)
        if (sampleOf(run, sample)) add(sample);
    std::cerr << '.' << std::flush;
}

void Collector::add(const Sample& sample)
{
    if (!sample.error.empty()) errors_[sample.key] = sample.error;
    else samples_[sample.key].push_back(sample);
}

void Collector::Finalize() { std::cerr << '\n'; }

template <typename Figure>
double Collector::medianOf(const std::string& key, Figure figure) const
{
    auto it = samples_.find(key);
    if (errors_.count(key) || it == samples_.end()) return -1;
    std::vector<double> values;
    for (const Sample& s : it->second) {
        const double v = figure(s);
        if (v >= 0) values.push_back(v);
    }
    return median(values);
}

double Collector::medianNs(const std::string& key) const
{
    return medianOf(key, [](const Sample& s) { return s.ns; });
}

double Collector::medianCounter(const std::string& key, const std::string& counter) const
{
    return medianOf(key, [&](const Sample& s) {
        auto it = s.counters.find(counter);
        return it == s.counters.end() ? -1.0 : it->second;
    });
}

double Collector::medianRatio(const std::string& key, const std::string& numerator,
                              const std::string& denominator) const
{
    return medianOf(key, [&](const Sample& s) {
        auto n = s.counters.find(numerator);
        auto d = s.counters.find(denominator);
        if (n == s.counters.end() || d == s.counters.end() || n->second < 0 || d->second <= 0) return -1.0;
        return n->second / d->second;
    });
}

}  // namespace nkrbench
