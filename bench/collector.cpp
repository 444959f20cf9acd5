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
    auto items = run.counters.find("items_per_second");
    if (items != run.counters.end()) out.rate = items->second.value;
    auto calls = run.counters.find("calls");
    if (calls != run.counters.end() && calls->second.value > 0)
        out.cpuPerCallNs = toNs(run.GetAdjustedCPUTime(), run.time_unit) / calls->second.value;
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
    if (!sample.error.empty()) {
        errors_[sample.key] = sample.error;
        return;
    }
    ns_[sample.key].push_back(sample.ns);
    if (sample.rate >= 0) rate_[sample.key].push_back(sample.rate);
    if (sample.cpuPerCallNs >= 0) cpuPerCall_[sample.key].push_back(sample.cpuPerCallNs);
}

void Collector::Finalize() { std::cerr << '\n'; }

double Collector::medianOf(const std::map<std::string, std::vector<double>>& values,
                           const std::string& name) const
{
    if (errors_.count(name)) return -1;
    auto it = values.find(name);
    return it == values.end() ? -1 : median(it->second);
}

double Collector::medianNs(const std::string& name) const { return medianOf(ns_, name); }
double Collector::medianRate(const std::string& name) const { return medianOf(rate_, name); }
double Collector::medianCpuPerCall(const std::string& name) const { return medianOf(cpuPerCall_, name); }

}  // namespace nkrbench
