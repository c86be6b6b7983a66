// What unpacking costs beyond the minimum: a zip of 2,501 record files of 4 KB, against raw inflate and CRC-32 of the
// same bytes in memory and writing the same files. Processor time, at most 1.3 times.
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "bench/medians.h"
#include "bench/record_text.h"
#include "foundation/file_utils.h"
#include "platform/backend.h"
#include "platform/utf.h"
#include "zip/zip_reader.h"
#include "zip/zip_writer.h"

namespace {

namespace fs = std::filesystem;
using kv::bench::recordCount;
using kv::bench::recordSize;

/// What the peer needs to know about an item of the archive.
struct Packed {
    std::string path;
    unsigned char* data = nullptr;
    unsigned size = 0;  // bytes
    unsigned crc = 0;
};

std::string archive;
std::vector<Packed> items;

unsigned Field(std::size_t offset, std::size_t size) {
    unsigned field = 0;
    std::memcpy(&field, archive.data() + offset, size);
    return field;
}

/// Packs the records, and notes where the local headers say that their data is.
void MakeArchive() {
    std::mt19937 random(1);
    kv::ZipHandle zip = kv::CreateZip(u"records.zip", nullptr);
    for (int i = 1; i <= recordCount; ++i) {
        const std::string bytes = kv::Utf16LittleEndianBytes(kv::bench::RecordText(random));
        const std::string name = "data/Agent_7301_" + std::to_string(i) + ".txt";
        if (kv::AddMemoryToZip(zip, platform::WideFromUtf8(name), bytes.data(), bytes.size()) != kv::zip_result::ok)
            throw std::runtime_error("an entry cannot be packed");
    }
    if (kv::CloseZip(zip) != kv::zip_result::ok) throw std::runtime_error("the archive cannot be closed");
    std::ifstream file("records.zip", std::ios::binary);
    archive.assign(std::istreambuf_iterator<char>(file), {});
    for (std::size_t at = 0; Field(at, 4) == 0x04034B50;) {
        const std::size_t nameAt = at + 30;
        const std::size_t dataAt = nameAt + Field(at + 26, 2) + Field(at + 28, 2);
        items.push_back({.path = "out/" + archive.substr(nameAt, Field(at + 26, 2)),
                         .data = reinterpret_cast<unsigned char*>(archive.data()) + dataAt,
                         .size = Field(at + 18, 4),
                         .crc = Field(at + 14, 4)});
        at = dataAt + items.back().size;
    }
}

/// Both write into a new directory.
void RemoveOutput() { fs::remove_all("out"); }

void InflateAndWrite(benchmark::State& state) {
    RemoveOutput();
    std::array<unsigned char, 16384> output{};
    for (auto iteration : state) {
        mkdir("out", 0755);
        mkdir("out/data", 0755);
        z_stream stream{};
        inflateInit2(&stream, -MAX_WBITS);
        for (const Packed& item : items) {
            inflateReset(&stream);
            stream.next_in = item.data;
            stream.avail_in = item.size;
            stream.next_out = output.data();
            stream.avail_out = output.size();
            if (inflate(&stream, Z_FINISH) != Z_STREAM_END) state.SkipWithError("not inflated");
            const unsigned size = static_cast<unsigned>(output.size()) - stream.avail_out;
            if (crc32(0, output.data(), size) != item.crc) state.SkipWithError("another CRC");
            const int file = open(item.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (write(file, output.data(), size) != static_cast<ssize_t>(size)) state.SkipWithError("not written");
            close(file);
        }
        inflateEnd(&stream);
    }
}

void UnpackZip(benchmark::State& state) {
    RemoveOutput();
    for (auto iteration : state) kv::UnzipFiles(u"records.zip", u"out");
    for (const Packed& item : items) {
        if (!fs::exists(item.path) || fs::file_size(item.path) != recordSize) state.SkipWithError("not unpacked");
    }
}

BENCHMARK(InflateAndWrite)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->Iterations(1)->Repetitions(15);
BENCHMARK(UnpackZip)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->Iterations(1)->Repetitions(15);

}  // namespace

int main(int argc, char** argv) {
    constexpr double limit = 1.3;
    kv::bench::InitializeInterleaved(argc, argv);

    platform::InstallBackend();
    // In memory if there is such a place: the time in which a disk makes thousands of files varies by a factor of two.
    const fs::path memory = "/dev/shm";
    std::string folder =
        ((fs::is_directory(memory) ? memory : fs::temp_directory_path()) / "kvagent-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return 2;
    fs::current_path(folder);
    MakeArchive();
    kv::bench::MedianReporter reporter("InflateAndWrite");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    fs::current_path("/");
    fs::remove_all(folder);

    const double ratio = reporter.own / reporter.peer;
    std::printf(
        "unpacking %zu records of %zu bytes: %.1f ms, inflating and writing alone %.1f ms, ratio %.3f (limit %.2f)\n",
        items.size(), recordSize, reporter.own, reporter.peer, ratio, limit);
    return ratio <= limit && items.size() == recordCount ? 0 : 1;
}
