// What benchmarks that compare two measurements of one run share: the order of the runs, and the medians.
#pragma once

#include <benchmark/benchmark.h>
#include <string>
#include <utility>
#include <vector>

namespace kv::bench {

/// Reads the command line; the repetitions of the benchmarks are mixed, so that both meet the same machine.
inline void InitializeInterleaved(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    std::string interleaved = "--benchmark_enable_random_interleaving=true";
    std::string aggregates = "--benchmark_report_aggregates_only=true";
    arguments.insert(arguments.begin() + 1, {interleaved.data(), aggregates.data()});
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
}

/// The usual table, from which two medians are kept, in the benchmarks' own unit: of processor time, or of the time
/// that they measure themselves.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    /// The name of the measurement that the other one is held against.
    explicit MedianReporter(std::string peerName) : peerName_(std::move(peerName)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name != "median") continue;
            const bool isManual = run.run_name.time_type == "manual_time";
            const double time = isManual ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
            (run.benchmark_name().starts_with(peerName_) ? peer : own) = time;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double peer = 0;
    double own = 0;

  private:
    std::string peerName_;
};

}  // namespace kv::bench
