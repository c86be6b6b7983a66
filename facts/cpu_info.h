// Processors as /proc/cpuinfo describes them: one block of lines for each logical processor that is online, with other
// lines on each architecture.
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

    /// A whole number, in decimal, or after 0x in hexadecimal; absent when the field does not hold one.
    std::optional<std::uint64_t> numberIn(std::string_view name) const;

    /// Whether a word is among the x86 flags; absent on architectures without such flags.
    std::optional<bool> hasFlag(std::string_view flag) const;
};

/// The blocks of processors, in order; they refer to the text.
std::vector<CpuBlock> ParseCpuInfo(std::string_view text);

/// Gives the text of a file about a logical processor, such as "topology/core_id"; absent when there is no such file.
using CpuFiles = std::function<std::optional<std::string>(std::uint32_t number, std::string_view name)>;

/// The CpuFiles of this computer, below /sys/devices/system/cpu.
std::optional<std::string> ReadCpuFile(std::uint32_t number, std::string_view name);

/// /proc/cpuinfo; empty when it cannot be read.
std::string ReadCpuInfo();

/// A physical processor.
struct Socket {
    std::uint64_t package = 0;         // the system's number of it
    std::vector<CpuBlock> processors;  // at least one
};

/// The sockets, in ascending order of their packages. The files are asked about blocks that do not tell of theirs.
std::vector<Socket> SocketsOf(const std::vector<CpuBlock>& blocks, const CpuFiles& files);

/// How many cores a socket has. Cores are told apart by the processors that share them, because some systems number
/// the cores of each cluster from 0.
std::uint32_t CoresOf(const Socket& socket, const CpuFiles& files);

/// A level of cache, "1024K" or "32M" as /sys writes it, in KB; absent when the text is not one.
std::optional<std::uint64_t> CacheSizeOf(std::string_view text);

/// KB of all of a socket's caches of a level, each counted once; absent when there is no such cache, or the system does
/// not tell.
struct CacheSizes {
    std::optional<std::uint64_t> secondLevel;
    std::optional<std::uint64_t> thirdLevel;
};

CacheSizes CachesOf(const Socket& socket, const CpuFiles& files);

/// MHz at which a socket's processors run now, their mean; absent when the system does not tell.
std::optional<std::uint64_t> ClockOf(const Socket& socket, const CpuFiles& files);

/// MHz at which the fastest of a socket's processors runs without a boost, or with it when only that is known; absent
/// when the system tells neither.
std::optional<std::uint64_t> MaxClockOf(const Socket& socket, const CpuFiles& files);

}  // namespace kv::facts
