#include "facts/hardware/processor_identity.h"

#include <fmt/format.h>

namespace kv::facts {

namespace {

struct ArmMaker {
    std::uint64_t number;
    std::string_view name;
};

constexpr ArmMaker armMakers[] = {
    {0x41, "ARM"},    {0x42, "Broadcom"}, {0x43, "Cavium"},   {0x46, "Fujitsu"},   {0x48, "HiSilicon"},
    {0x4E, "NVIDIA"}, {0x50, "APM"},      {0x51, "Qualcomm"}, {0x53, "Samsung"},   {0x56, "Marvell"},
    {0x61, "Apple"},  {0x66, "Faraday"},  {0x69, "Intel"},    {0x6D, "Microsoft"}, {0xC0, "Ampere"},
};

enum ArchitectureNumber : std::uint16_t {
    x86 = 0,
    mips = 1,
    alpha = 2,
    powerPc = 3,
    arm = 5,
    ia64 = 6,
    x64 = 9,
    arm64 = 12
};

struct Architecture {
    std::string_view machine;
    std::uint16_t number;
};

constexpr Architecture architectures[] = {
    {"x86_64", x64},  {"aarch64", arm64}, {"i386", x86},      {"i586", x86},        {"i686", x86},
    {"armv6l", arm},  {"armv7l", arm},    {"armv8l", arm},    {"mips", mips},       {"mips64", mips},
    {"alpha", alpha}, {"ppc", powerPc},   {"ppc64", powerPc}, {"ppc64le", powerPc}, {"ia64", ia64},
};

bool IsArm(const CpuBlock& block) { return !block.field("CPU implementer").empty(); }

/// Two numbers as the bytes of one; absent when either is missing.
std::optional<std::uint64_t> TwoBytes(std::optional<std::uint64_t> high, std::optional<std::uint64_t> low) {
    constexpr unsigned byteBits = 8;
    if (!high || !low) return std::nullopt;
    return *high << byteBits | *low;
}

/// How Windows names the architecture in front of family, model and stepping.
std::string_view X86PrefixOf(std::string_view vendor) {
    if (vendor == "GenuineIntel") return "Intel64";
    return vendor == "AuthenticAMD" ? "AMD64" : "x86";
}

}  // namespace

std::optional<std::uint16_t> ArchitectureOf(std::string_view machine) {
    for (const Architecture& architecture : architectures) {
        if (machine == architecture.machine) return architecture.number;
    }
    return std::nullopt;
}

std::string_view WordWidthOf(std::string_view machine) {
    const bool isWide = machine.find("64") != std::string_view::npos || machine == "s390x" || machine == "alpha";
    return isWide ? "64-bit" : "32-bit";
}

std::string SystemTypeOf(std::string_view machine) {
    switch (ArchitectureOf(machine).value_or(UINT16_MAX)) {
        case x86:
            return "X86-based PC";
        case arm:
            return "ARM-based PC";
        case x64:
            return "x64-based PC";
        case arm64:
            return "ARM64-based PC";
        default:
            return std::string(machine) + "-based PC";
    }
}

std::optional<std::string> ManufacturerOf(const CpuBlock& block) {
    if (const std::string_view vendor = block.field("vendor_id"); !vendor.empty()) return std::string(vendor);
    const std::optional<std::uint64_t> number = block.numberIn("CPU implementer");
    for (const ArmMaker& maker : armMakers) {
        if (number == maker.number) return std::string(maker.name);
    }
    return std::nullopt;
}

std::optional<std::string> ModelNameOf(const CpuBlock& block) {
    if (const std::string_view name = block.field("model name"); !name.empty()) return std::string(name);
    const std::string_view part = block.field("CPU part");
    if (part.empty()) return std::nullopt;
    return fmt::format("{} part {}", ManufacturerOf(block).value_or("ARM"), part);
}

std::optional<std::string> DescriptionOf(const CpuBlock& block) {
    const std::optional<std::uint64_t> level = LevelOf(block);
    const std::optional<std::uint64_t> model = block.numberIn(IsArm(block) ? "CPU part" : "model");
    const std::optional<std::uint64_t> revision = RevisionOf(block);
    if (!level || !model || !revision) return std::nullopt;
    if (!IsArm(block)) {
        return fmt::format("{} Family {} Model {} Stepping {}", X86PrefixOf(block.field("vendor_id")), *level, *model,
                           block.field("stepping"));
    }
    constexpr std::uint64_t firstWide = 8;
    return fmt::format("ARMv{} ({}-bit) Family {} Model {:X} Revision {:X}", *level, *level < firstWide ? 32 : 64,
                       *level, *model, *revision);
}

std::optional<std::uint64_t> LevelOf(const CpuBlock& block) {
    return block.numberIn(IsArm(block) ? "CPU architecture" : "cpu family");
}

std::optional<std::uint64_t> RevisionOf(const CpuBlock& block) {
    if (IsArm(block)) return TwoBytes(block.numberIn("CPU variant"), block.numberIn("CPU revision"));
    return TwoBytes(block.numberIn("model"), block.numberIn("stepping"));
}

}  // namespace kv::facts
