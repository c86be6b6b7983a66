// Processors as /proc/cpuinfo describes them: one block of lines for each logical processor that is online, with other
// lines on each architecture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::wmi {

/// A logical processor.
struct CpuBlock {
    std::uint32_t number = 0;
    std::string_view text;  // its lines

    /// The value of a line such as "model name"; empty where there is none.
    std::string_view field(std::string_view name) const;

    /// A whole number, in decimal or after 0x in hexadecimal; none for a field without one.
    std::optional<std::uint64_t> numberIn(std::string_view name) const;

    /// Whether a word is among the x86 flags; none on architectures without these.
    std::optional<bool> hasFlag(std::string_view flag) const;
};

/// The blocks of processors, in order; they refer to the text.
std::vector<CpuBlock> ParseCpuInfo(std::string_view text);

/// Where a logical processor sits.
struct CpuPlace {
    std::uint64_t package = 0;
    std::uint64_t core = 0;  // within the package
};

/// The place that /sys tells of; where it tells of none, a core of its own in package 0.
CpuPlace ReadCpuPlace(const CpuBlock& block);

/// A physical processor.
struct Socket {
    std::uint64_t package = 0;  // the system's number of it
    std::uint32_t cores = 0;
    std::vector<CpuBlock> processors;  // at least one
};

/// The sockets, in ascending order of their packages. A block that does not tell its place is looked up.
std::vector<Socket> SocketsOf(const std::vector<CpuBlock>& blocks, CpuPlace (*lookUp)(const CpuBlock&) = ReadCpuPlace);

/// /proc/cpuinfo; empty when it cannot be read.
std::string ReadCpuInfo();

/// A level of cache, "1024K" or "32M" as /sys writes it, in KB; none for another text.
std::optional<std::uint64_t> CacheSizeOf(std::string_view text);

/// KB of all of a socket's caches of a level, each counted once; none where /sys tells of none.
std::optional<std::uint64_t> ReadCacheSize(const Socket& socket, std::uint64_t level);

/// MHz at which a socket's processors run now, their mean; none where the system does not tell.
std::optional<std::uint64_t> ReadClock(const Socket& socket);

/// MHz that any of a socket's processors can reach; none where the system does not tell.
std::optional<std::uint64_t> ReadMaxClock(const Socket& socket);

}  // namespace platform::wmi
