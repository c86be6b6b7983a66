// Processors as /proc/cpuinfo describes them: one block of lines for each logical processor that is online. Which lines
// it has depends on the architecture.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// A logical processor.
struct CpuBlock {
    std::uint32_t number = 0;
    std::string_view text;  // its lines

    /// The value of a line such as "model name"; empty when there is no such line.
    std::string_view field(std::string_view name) const;

    /// The whole number in a field: decimal, or hexadecimal after 0x. Absent when the field does not hold one.
    std::optional<std::uint64_t> numberIn(std::string_view name) const;

    /// Whether a word is among the x86 flags; absent on architectures without such flags.
    std::optional<bool> hasFlag(std::string_view flag) const;
};

/// The blocks of processors, in the text's order. They refer to the text. Blocks without a processor's number are left
/// out.
std::vector<CpuBlock> ParseCpuInfo(std::string_view text);

/// Gives the text of a file about a logical processor, such as "topology/core_id"; absent when the file is missing or
/// empty.
using CpuFiles = std::function<std::optional<std::string>(std::uint32_t number, std::string_view name)>;

/// The CpuFiles of this computer, from below /sys/devices/system/cpu.
std::optional<std::string> ReadCpuFile(std::uint32_t number, std::string_view name);

/// /proc/cpuinfo; empty when it cannot be read.
std::string ReadCpuInfo();

/// A physical processor.
struct Socket {
    std::uint64_t package = 0;         // the system's number for it
    std::vector<CpuBlock> processors;  // at least one
};

/// The sockets, in ascending order of their packages. When a block does not name its package, the files do.
std::vector<Socket> SocketsOf(const std::vector<CpuBlock>& blocks, const CpuFiles& files);

/// How many cores a socket has. Cores are told apart by the processors that share them, because on some systems each
/// cluster numbers its cores from 0.
std::uint32_t CoresOf(const Socket& socket, const CpuFiles& files);

/// The size of a cache in KB, from "1024K" or "32M" as /sys writes it; absent when the text has another form.
std::optional<std::uint64_t> CacheSizeOf(std::string_view text);

/// The sum of a socket's caches of each level, in KB; absent when there is no such cache, or the system does not tell.
struct CacheSizes {
    std::optional<std::uint64_t> secondLevel;
    std::optional<std::uint64_t> thirdLevel;
};

CacheSizes CachesOf(const Socket& socket, const CpuFiles& files);

/// The mean clock rate of a socket's processors now, in MHz; absent when the system does not tell.
std::optional<std::uint64_t> ClockOf(const Socket& socket, const CpuFiles& files);

/// The clock rate of the socket's fastest processor without a boost, or with it when only that is known, in MHz; absent
/// when the system tells neither.
std::optional<std::uint64_t> MaxClockOf(const Socket& socket, const CpuFiles& files);

}  // namespace kv::facts
