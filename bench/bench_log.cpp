// What a log step costs while it is switched off: at most 2 ns over an empty loop.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "foundation/log.h"

namespace {

const std::u16string text = u"a text that a line would have to convert";

void EmptyLoop(benchmark::State& state) {
    int number = 0;
    for (auto iteration : state) benchmark::DoNotOptimize(++number);
}

void LogStepOff(benchmark::State& state) {
    kv::logState.gv_logLevel = 0;
    int number = 0;
    for (auto iteration : state) {
        benchmark::DoNotOptimize(++number);
        kv::Log1("bench :: %d %s\n", number, text);
    }
}

BENCHMARK(EmptyLoop)->Repetitions(9)->ReportAggregatesOnly();
BENCHMARK(LogStepOff)->Repetitions(9)->ReportAggregatesOnly();

/// The usual table, from which the two medians are kept.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name != "median") continue;
            (run.benchmark_name().starts_with("EmptyLoop") ? empty : step) = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double empty = 0;  // nanoseconds
    double step = 0;
};

}  // namespace

int main(int argc, char** argv) {
    constexpr double limit = 2.0;  // nanoseconds
    benchmark::Initialize(&argc, argv);
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double over = reporter.step - reporter.empty;
    std::printf("a log step that is off: %.2f ns over an empty loop (limit %.0f ns)\n", over, limit);
    return over <= limit ? 0 : 1;
}
