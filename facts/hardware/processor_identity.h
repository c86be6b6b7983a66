// What kind of processor a block of /proc/cpuinfo describes, in the words and numbers of Windows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "facts/hardware/cpu_info.h"

namespace kv::facts {

/// The number that Win32_Processor.Architecture has for a machine, as uname(2) names it; absent when Windows has never
/// run on it.
std::optional<std::uint16_t> ArchitectureOf(std::string_view machine);

/// "64-bit" or "32-bit".
std::string_view WordWidthOf(std::string_view machine);

/// "x64-based PC" and the like.
std::string SystemTypeOf(std::string_view machine);

/// "GenuineIntel", "AuthenticAMD", or on ARM the company's name; absent when it is not known.
std::optional<std::string> ManufacturerOf(const CpuBlock& block);

// The following are absent when the block does not have the lines that they need.

/// The name that the processor gives itself, or on ARM its maker and the number of its design.
std::optional<std::string> ModelNameOf(const CpuBlock& block);

/// "AMD64 Family 25 Model 1 Stepping 1" or "ARMv8 (64-bit) Family 8 Model D0C Revision 301".
std::optional<std::string> DescriptionOf(const CpuBlock& block);

/// The family on x86, the version of the architecture on ARM.
std::optional<std::uint64_t> LevelOf(const CpuBlock& block);

/// On x86 the model in the upper and the stepping in the lower byte, on ARM the variant and the revision.
std::optional<std::uint64_t> RevisionOf(const CpuBlock& block);

}  // namespace kv::facts
