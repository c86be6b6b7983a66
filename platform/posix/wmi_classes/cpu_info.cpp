#include "platform/posix/wmi_classes/cpu_info.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <set>

#include "platform/posix/wmi/system_text.h"

namespace platform::wmi {

namespace {

/// Takes the next block off: the lines up to an empty one.
std::string_view TakeBlock(std::string_view& text) {
    constexpr std::string_view emptyLine = "\n\n";
    const std::size_t end = std::min(text.find(emptyLine), text.size());
    const std::string_view block = text.substr(0, end);
    text.remove_prefix(std::min(end + emptyLine.size(), text.size()));
    return block;
}

std::string CpuFile(std::uint32_t number, std::string_view name) {
    return fmt::format("/sys/devices/system/cpu/cpu{}/{}", number, name);
}

/// Of a file that tells kHz.
std::optional<std::uint64_t> ReadMegahertz(std::uint32_t number, std::string_view name) {
    constexpr std::uint64_t kilohertzOfMegahertz = 1000;
    const std::optional<std::uint64_t> kilohertz = ReadSystemNumber(CpuFile(number, name));
    return kilohertz ? std::optional(*kilohertz / kilohertzOfMegahertz) : std::nullopt;
}

std::optional<std::uint64_t> ReadClockOf(const CpuBlock& processor) {
    const std::string_view megahertz = processor.field("cpu MHz");
    if (megahertz.empty()) return ReadMegahertz(processor.number, "cpufreq/scaling_cur_freq");
    return NumberOf(megahertz.substr(0, megahertz.find('.')));
}

struct CpuCache {
    std::uint64_t level = 0;
    std::uint64_t size = 0;         // KB
    std::uint64_t firstSharer = 0;  // of the logical processors that share it
};

/// None where a processor has no cache of that index.
std::optional<CpuCache> ReadCache(std::uint32_t number, unsigned index) {
    const auto read = [&](const char* name) {
        return ReadSystemLine(CpuFile(number, fmt::format("cache/index{}/{}", index, name)));
    };
    const std::optional<std::string> level = read("level");
    if (!level) return std::nullopt;
    const std::string sharers = read("shared_cpu_list").value_or("");
    return CpuCache{NumberOf(*level).value_or(0), CacheSizeOf(read("size").value_or("")).value_or(0),
                    NumberOf(sharers.substr(0, sharers.find_first_of(",-"))).value_or(number)};
}

std::optional<CpuPlace> PlaceIn(const CpuBlock& block) {
    const std::optional<std::uint64_t> package = block.numberIn("physical id");
    const std::optional<std::uint64_t> core = block.numberIn("core id");
    if (!package || !core) return std::nullopt;
    return CpuPlace{*package, *core};
}

}  // namespace

std::string_view CpuBlock::field(std::string_view name) const {
    std::string_view rest = text;
    for (std::string_view line; TakeLine(rest, line);) {
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos && Trimmed(line.substr(0, colon)) == name)
            return Trimmed(line.substr(colon + 1));
    }
    return {};
}

std::optional<std::uint64_t> CpuBlock::numberIn(std::string_view name) const {
    constexpr int sixteen = 16;
    const std::string_view value = field(name);
    if (!value.starts_with("0x")) return NumberOf(value);
    std::uint64_t found = 0;
    const auto [end, failure] = std::from_chars(value.data() + 2, value.data() + value.size(), found, sixteen);
    if (failure != std::errc() || end != value.data() + value.size()) return std::nullopt;
    return found;
}

std::optional<bool> CpuBlock::hasFlag(std::string_view flag) const {
    std::string_view flags = field("flags");
    if (flags.empty()) return std::nullopt;
    std::string_view word = TakeField(flags);
    while (!word.empty() && word != flag) word = TakeField(flags);
    return !word.empty();
}

std::vector<CpuBlock> ParseCpuInfo(std::string_view text) {
    std::vector<CpuBlock> blocks;
    while (!text.empty()) {
        CpuBlock block{0, TakeBlock(text)};
        const std::optional<std::uint64_t> number = block.numberIn("processor");
        if (!number) continue;
        block.number = static_cast<std::uint32_t>(*number);
        blocks.push_back(block);
    }
    return blocks;
}

CpuPlace ReadCpuPlace(const CpuBlock& block) {
    return {ReadSystemNumber(CpuFile(block.number, "topology/physical_package_id")).value_or(0),
            ReadSystemNumber(CpuFile(block.number, "topology/core_id")).value_or(block.number)};
}

std::vector<Socket> SocketsOf(const std::vector<CpuBlock>& blocks, CpuPlace (*lookUp)(const CpuBlock&)) {
    std::map<std::uint64_t, Socket> sockets;
    std::set<std::pair<std::uint64_t, std::uint64_t>> cores;
    for (const CpuBlock& block : blocks) {
        const std::optional<CpuPlace> known = PlaceIn(block);
        const CpuPlace place = known ? *known : lookUp(block);
        Socket& socket = sockets[place.package];
        socket.package = place.package;
        if (cores.insert({place.package, place.core}).second) ++socket.cores;
        socket.processors.push_back(block);
    }
    std::vector<Socket> sorted;
    sorted.reserve(sockets.size());
    for (auto& [package, socket] : sockets) sorted.push_back(std::move(socket));
    return sorted;
}

std::string ReadCpuInfo() { return ReadSystemFile("/proc/cpuinfo").value_or(""); }

std::optional<std::uint64_t> CacheSizeOf(std::string_view text) {
    constexpr std::uint64_t kilobytesOfMegabyte = 1024;
    const bool isMegabytes = text.ends_with('M');
    if (!isMegabytes && !text.ends_with('K')) return std::nullopt;
    const std::optional<std::uint64_t> size = NumberOf(text.substr(0, text.size() - 1));
    return size && isMegabytes ? *size * kilobytesOfMegabyte : size;
}

std::optional<std::uint64_t> ReadCacheSize(const Socket& socket, std::uint64_t level) {
    std::optional<std::uint64_t> sum;
    for (const CpuBlock& processor : socket.processors) {
        for (unsigned index = 0;; ++index) {
            const std::optional<CpuCache> cache = ReadCache(processor.number, index);
            if (!cache) break;
            if (cache->level == level && cache->firstSharer == processor.number) sum = sum.value_or(0) + cache->size;
        }
    }
    return sum;
}

std::optional<std::uint64_t> ReadClock(const Socket& socket) {
    std::uint64_t sum = 0;
    std::uint64_t count = 0;
    for (const CpuBlock& processor : socket.processors) {
        if (const std::optional<std::uint64_t> clock = ReadClockOf(processor)) {
            sum += *clock;
            ++count;
        }
    }
    return count == 0 ? std::nullopt : std::optional(sum / count);
}

std::optional<std::uint64_t> ReadMaxClock(const Socket& socket) {
    std::optional<std::uint64_t> highest;
    for (const CpuBlock& processor : socket.processors) {
        highest = std::max(highest, ReadMegahertz(processor.number, "cpufreq/cpuinfo_max_freq"));
    }
    return highest;
}

}  // namespace platform::wmi
