// What the kernel counts for the whole computer: memory in /proc/meminfo, processor time in /proc/stat (proc(5)).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace kv::facts {

/// The number in a line of /proc/meminfo, such as "MemTotal", in KB, or bare if the line has no unit; absent when there
/// is no such line.
std::optional<std::uint64_t> MemoryFigure(std::string_view memInfo, std::string_view key);

/// What programs can still get without swapping, in KB: MemAvailable, or on a kernel without it the free memory and
/// what the caches could give back. Absent when the text has neither.
std::optional<std::uint64_t> AvailableMemory(std::string_view memInfo);

/// Time of one logical processor since the system's start, in ticks of ClockTicksPerSecond.
struct ProcessorTimes {
    std::uint32_t number = 0;
    std::uint64_t user = 0;  // time of virtual machines included
    std::uint64_t nice = 0;  // user time of lower priority
    std::uint64_t kernel = 0;
    std::uint64_t idle = 0;
    std::uint64_t ioWait = 0;  // idle too, while something waits for a disk
    std::uint64_t interrupts = 0;
    std::uint64_t softInterrupts = 0;
    std::uint64_t stolen = 0;  // taken by other virtual machines

    std::uint64_t busyTicks() const { return user + nice + kernel + interrupts + softInterrupts + stolen; }
    std::uint64_t idleTicks() const { return idle + ioWait; }
};

/// The lines "cpu<number>" of /proc/stat. The line "cpu", which sums them up, is left out.
std::vector<ProcessorTimes> ParseProcessorTimes(std::string_view stat);

}  // namespace kv::facts
