// How busy processors were between two samples.
#include <chrono>
#include <gtest/gtest.h>
#include <tuple>

#include "facts/hardware/processor_load.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::chrono_literals;

TEST(ProcessorLoad, CountsSinceASampleAtLeastASecondOld) {
    LoadHistory history;
    const std::vector<CpuBlock> blocks = ParseCpuInfo("processor: 0\n\nprocessor: 1\n");
    const std::tuple<const char*, std::chrono::milliseconds, const char*, unsigned> rows[] = {
        {"since the start", 0ms, "cpu 9 9\ncpu0 10 10 10 50 10 5 5 0 0\ncpu1 10 10 10 60 0 0 0 10\nintr 7\n", 40},
        {"the first is too young: since the start", 999ms, "cpu0 40 10 10 50 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n",
         48},
        {"since the first", 1000ms, "cpu0 60 10 10 100 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n", 50},
        {"the second is too young: still since the first", 1500ms,
         "cpu0 60 10 10 150 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n", 33},
        {"since the second; a counter went back and a processor is gone", 2500ms, "cpu0 60 10 10 400 9 5 5 0\n", 0},
        {"a processor that comes back counts since the start", 4000ms, "cpu0 60 10 10 400 9 5 5 0\ncpu1 30 0 0 10\n",
         75},
        {"no time has passed", 9000ms, "cpu0 60 10 10 400 9 5 5 0\ncpu1 30 0 0 10\n", 0},
    };
    for (const auto& [title, at, stat, percent] : rows) {
        TimesByProcessor sample;
        for (const ProcessorTimes& times : ParseProcessorTimes(stat)) sample[times.number] = times;
        const TimesByProcessor base = history.Exchange(sample, std::chrono::steady_clock::time_point(at));
        EXPECT_EQ(BusyPercent(blocks, base, sample), percent) << title;
    }
}

}  // namespace
}  // namespace kv::test
