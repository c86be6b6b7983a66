#include "facts/hardware/cpu_info.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// Takes the next block off a text: the lines up to an empty line.
std::string_view TakeBlock(std::string_view& text) {
    constexpr std::string_view emptyLine = "\n\n";
    const std::size_t end = std::min(text.find(emptyLine), text.size());
    const std::string_view block = text.substr(0, end);
    text.remove_prefix(std::min(end + emptyLine.size(), text.size()));
    return block;
}

std::optional<std::uint64_t> NumberIn(const CpuFiles& files, std::uint32_t number, std::string_view name) {
    const std::optional<std::string> text = files(number, name);
    return text ? NumberOf(*text) : std::nullopt;
}

/// MHz from a file that holds kHz.
std::optional<std::uint64_t> MegahertzIn(const CpuFiles& files, std::uint32_t number, std::string_view name) {
    constexpr std::uint64_t kilohertzPerMegahertz = 1000;
    const std::optional<std::uint64_t> kilohertz = NumberIn(files, number, name);
    return kilohertz ? std::optional(*kilohertz / kilohertzPerMegahertz) : std::nullopt;
}

std::optional<std::uint64_t> ClockOfOne(const CpuBlock& processor, const CpuFiles& files) {
    const std::string_view megahertz = processor.field("cpu MHz");
    if (megahertz.empty()) return MegahertzIn(files, processor.number, "cpufreq/scaling_cur_freq");
    return NumberOf(megahertz.substr(0, megahertz.find('.')));
}

std::uint64_t PackageOf(const CpuBlock& block, const CpuFiles& files) {
    const std::optional<std::uint64_t> told = block.numberIn("physical id");
    return told ? *told : NumberIn(files, block.number, "topology/physical_package_id").value_or(0);
}

/// The first number in a list such as "0,4" or "0-3".
std::optional<std::uint64_t> FirstInList(std::string_view list) {
    return NumberOf(list.substr(0, list.find_first_of(",-")));
}

/// The first of the processors that share something with this one, by a file's list; this one itself when there is no
/// list.
std::uint64_t FirstSharer(const CpuFiles& files, std::uint32_t number, std::string_view list) {
    return FirstInList(files(number, list).value_or("")).value_or(number);
}

/// Adds those caches of levels 2 and 3 whose first sharer is this processor, so that each cache counts once.
void AddCaches(const CpuFiles& files, std::uint32_t number, CacheSizes& sizes) {
    for (unsigned index = 0;; ++index) {
        const std::string directory = fmt::format("cache/index{}/", index);
        const std::optional<std::string> level = files(number, directory + "level");
        if (!level) return;
        if (*level != "2" && *level != "3") continue;
        if (FirstSharer(files, number, directory + "shared_cpu_list") != number) continue;
        const std::optional<std::uint64_t> size = CacheSizeOf(files(number, directory + "size").value_or(""));
        std::optional<std::uint64_t>& sum = *level == "2" ? sizes.secondLevel : sizes.thirdLevel;
        if (size) sum = sum.value_or(0) + *size;
    }
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
    const std::string_view value = field(name);
    return value.starts_with("0x") ? HexNumberOf(value) : NumberOf(value);
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
        std::optional<std::uint64_t> number = block.numberIn("processor");
        if (!number) number = block.numberIn("cpu number");  // its name on s390x
        if (!number) continue;
        block.number = static_cast<std::uint32_t>(*number);
        blocks.push_back(block);
    }
    return blocks;
}

std::optional<std::string> ReadCpuFile(std::uint32_t number, std::string_view name) {
    return ReadSystemLine(fmt::format("/sys/devices/system/cpu/cpu{}/{}", number, name));
}

std::string ReadCpuInfo() { return platform::ReadSystemFile("/proc/cpuinfo").value_or(""); }

std::vector<Socket> SocketsOf(const std::vector<CpuBlock>& blocks, const CpuFiles& files) {
    std::map<std::uint64_t, Socket> sockets;
    for (const CpuBlock& block : blocks) {
        const std::uint64_t package = PackageOf(block, files);
        Socket& socket = sockets[package];
        socket.package = package;
        socket.processors.push_back(block);
    }
    std::vector<Socket> sorted;
    sorted.reserve(sockets.size());
    for (auto& [package, socket] : sockets) sorted.push_back(std::move(socket));
    return sorted;
}

std::uint32_t CoresOf(const Socket& socket, const CpuFiles& files) {
    std::set<std::uint64_t> cores;
    for (const CpuBlock& processor : socket.processors) {
        cores.insert(FirstSharer(files, processor.number, "topology/thread_siblings_list"));
    }
    return static_cast<std::uint32_t>(cores.size());
}

std::optional<std::uint64_t> CacheSizeOf(std::string_view text) {
    constexpr std::uint64_t kilobytesPerMegabyte = 1024;
    const bool isMegabytes = text.ends_with('M');
    if (!isMegabytes && !text.ends_with('K')) return std::nullopt;
    const std::optional<std::uint64_t> size = NumberOf(text.substr(0, text.size() - 1));
    return size && isMegabytes ? *size * kilobytesPerMegabyte : size;
}

CacheSizes CachesOf(const Socket& socket, const CpuFiles& files) {
    CacheSizes sizes;
    for (const CpuBlock& processor : socket.processors) AddCaches(files, processor.number, sizes);
    return sizes;
}

std::optional<std::uint64_t> ClockOf(const Socket& socket, const CpuFiles& files) {
    std::uint64_t sum = 0;
    std::uint64_t count = 0;
    for (const CpuBlock& processor : socket.processors) {
        if (const std::optional<std::uint64_t> clock = ClockOfOne(processor, files)) {
            sum += *clock;
            ++count;
        }
    }
    return count == 0 ? std::nullopt : std::optional(sum / count);
}

std::optional<std::uint64_t> MaxClockOf(const Socket& socket, const CpuFiles& files) {
    std::optional<std::uint64_t> highest;
    for (const CpuBlock& processor : socket.processors) {
        std::optional<std::uint64_t> clock = MegahertzIn(files, processor.number, "cpufreq/base_frequency");
        if (!clock) clock = MegahertzIn(files, processor.number, "cpufreq/cpuinfo_max_freq");
        highest = std::max(highest, clock);
    }
    return highest;
}

}  // namespace kv::facts
