// What packing costs beyond the minimum: 2,501 record files of 4 KB into one zip, against reading them and running raw
// zlib level 8 and CRC-32 over the same bytes. Processor time, at most 1.25 times.
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "bench/medians.h"
#include "bench/record_text.h"
#include "foundation/file_utils.h"
#include "platform/backend.h"
#include "platform/utf.h"
#include "zip/zip_writer.h"

namespace {

namespace fs = std::filesystem;

using kv::bench::recordCount;
using kv::bench::recordSize;

std::vector<std::string> paths;           // as the system writes them
std::vector<std::u16string> recordNames;  // as the agent writes them

void WriteRecords() {
    std::mt19937 random(1);
    fs::create_directory("data");
    for (int i = 1; i <= recordCount; ++i) {
        const std::string name = "Agent_7301_" + std::to_string(i) + ".txt";
        paths.push_back("data/" + name);
        recordNames.push_back(u"data\\" + platform::WideFromUtf8(name));
        std::ofstream(paths.back(), std::ios::binary) << kv::Utf16LittleEndianBytes(kv::bench::RecordText(random));
    }
}

void ReadAndDeflate(benchmark::State& state) {
    std::array<unsigned char, 16384> input{};
    std::array<unsigned char, 32768> output{};
    for (auto iteration : state) {
        z_stream stream{};
        deflateInit2(&stream, 8, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
        for (const std::string& path : paths) {
            const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            const auto size = static_cast<uInt>(read(file, input.data(), input.size()));
            close(file);
            benchmark::DoNotOptimize(crc32(0, input.data(), size));
            deflateReset(&stream);
            stream.next_in = input.data();
            stream.avail_in = size;
            stream.next_out = output.data();
            stream.avail_out = output.size();
            if (deflate(&stream, Z_FINISH) != Z_STREAM_END) state.SkipWithError("not deflated");
        }
        deflateEnd(&stream);
    }
}

void PackIntoZip(benchmark::State& state) {
    for (auto iteration : state) {
        kv::ZipHandle zip = kv::CreateZip(u"records.zip", nullptr);
        for (const std::u16string& name : recordNames) {
            if (kv::AddFileToZip(zip, name, name) != kv::zip_result::ok) state.SkipWithError("not added");
        }
        if (kv::CloseZip(zip) != kv::zip_result::ok) state.SkipWithError("not closed");
    }
}

BENCHMARK(ReadAndDeflate)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->Iterations(1)->Repetitions(15);
BENCHMARK(PackIntoZip)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->Iterations(1)->Repetitions(15);

}  // namespace

int main(int argc, char** argv) {
    constexpr double limit = 1.25;
    kv::bench::InitializeInterleaved(argc, argv);

    platform::InstallBackend();
    std::string folder = (fs::temp_directory_path() / "kvagent-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return 2;
    fs::current_path(folder);
    WriteRecords();
    kv::bench::MedianReporter reporter("ReadAndDeflate");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    fs::current_path("/");
    fs::remove_all(folder);

    const double ratio = reporter.own / reporter.peer;
    std::printf(
        "packing %d records of %zu bytes: %.1f ms, reading and deflating alone %.1f ms, ratio %.3f (limit %.2f)\n",
        recordCount, recordSize, reporter.own, reporter.peer, ratio, limit);
    return ratio <= limit ? 0 : 1;
}
