// What a log step costs: while it is switched off at most 2 ns over an empty loop, and two allocations for a line.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "platform/backend.h"

namespace {

std::size_t allocations = 0;

}  // namespace

// Not inlined, because the compiler would take new and free for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

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

/// Allocations for one line with all kinds of arguments, without those for the file.
std::size_t AllocationsOfALine() {
    kv::logState.gv_logLevel = 1;
    constexpr int lines = 1000;
    kv::Log1("the first line makes what stays\n");
    const std::size_t before = allocations;
    for (int i = 0; i < lines; ++i) kv::Log1("bench :: %d of %ld, %s and %s\n", i, std::int64_t{lines}, text, "narrow");
    kv::logState.gv_logLevel = 0;
    return (allocations - before) / lines;
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
    constexpr std::size_t allocationLimit = 2;
    platform::InstallBackend();
    const std::size_t perLine = AllocationsOfALine();
    benchmark::Initialize(&argc, argv);
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double over = reporter.step - reporter.empty;
    std::printf("a log step that is off: %.2f ns over an empty loop (limit %.0f ns)\n", over, limit);
    std::printf("a log step that is on: %zu allocations (limit %zu)\n", perLine, allocationLimit);
    return over <= limit && perLine <= allocationLimit ? 0 : 1;
}
