// For benchmarks that compare two measurements of one run: the order of the repetitions, and the medians.
#pragma once

#include <benchmark/benchmark.h>
#include <string>
#include <utility>
#include <vector>

namespace kv::bench {

/// Reads the command line, and mixes the repetitions of the benchmarks, so that both run under the same conditions.
inline void InitializeInterleaved(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    std::string interleaved = "--benchmark_enable_random_interleaving=true";
    std::string aggregates = "--benchmark_report_aggregates_only=true";
    arguments.insert(arguments.begin() + 1, {interleaved.data(), aggregates.data()});
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
}

/// Prints the usual table, and keeps two medians in the benchmarks' own unit: of processor time, or of the time that
/// they measure themselves.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    /// Takes the name of the measurement with which the other one is compared.
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
