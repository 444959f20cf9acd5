// nkr_bench: runs every benchmark (repetitions interleaved at random), the
// stand-in transport suite and the load program, and prints one table. Extra
// arguments go to Google Benchmark and override the defaults (for example
// --benchmark_filter=usb or --benchmark_repetitions=3).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_env.h"
#include "children.h"
#include "summary.h"

namespace {

const std::vector<std::string> kDefaults = {
    "--benchmark_repetitions=5",
    "--benchmark_enable_random_interleaving=true",
    "--benchmark_min_time=0.2",
};

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

int repetitionsOf(const std::vector<std::string>& args)
{
    int reps = 1;
    const char* flag = "--benchmark_repetitions=";
    for (const std::string& a : args)
        if (startsWith(a, flag)) reps = std::atoi(a.c_str() + std::strlen(flag));
    return reps;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args = kDefaults;
    for (int i = 1; i < argc; ++i) args.emplace_back(argv[i]);
    // The stand-in suite gets the same settings, less this program's output file.
    std::vector<std::string> childArgs;
    for (const std::string& a : args)
        if (!startsWith(a, "--benchmark_out")) childArgs.push_back(a);

    std::vector<char*> argp = {argv[0]};
    for (std::string& a : args) argp.push_back(a.data());
    argp.push_back(nullptr);
    int count = static_cast<int>(argp.size()) - 1;
    benchmark::Initialize(&count, argp.data());
    if (benchmark::ReportUnrecognizedArguments(count, argp.data())) return 1;

    const std::string loadBefore = nkrbench::loadAverage();
    nkrbench::prepareProcess();
    nkrbench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    nkrbench::finishProcess();
    if (!nkrbench::runStandinSuite(childArgs, collector)) std::fprintf(stderr, "stand-in suite failed\n");
    const nkrbench::Footprint footprint = nkrbench::measureFootprint();

    nkrbench::printSummary(collector, footprint, repetitionsOf(args), loadBefore, nkrbench::loadAverage());
    benchmark::Shutdown();
    return 0;
}
