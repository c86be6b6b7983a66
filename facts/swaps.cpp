#include "facts/swaps.h"

#include <cstdlib>
#include <filesystem>
#include <libmount.h>
#include <memory>

#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// A field without its escapes, such as "\040" for a blank.
std::string PlainField(std::string_view field) {
    const std::unique_ptr<char, platform::ReleasedBy<std::free>> plain(mnt_unmangle(std::string(field).c_str()));
    return plain ? plain.get() : std::string(field);
}

std::string WithoutQuotes(std::string text) {
    const bool isQuoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return isQuoted ? text.substr(1, text.size() - 2) : text;
}

/// The link that stands for a tag such as "UUID=..."; empty for any other source.
std::string LinkOfTag(const std::string& source) {
    constexpr std::pair<std::string_view, const char*> folders[] = {
        {"UUID=", "by-uuid/"},
        {"LABEL=", "by-label/"},
        {"PARTUUID=", "by-partuuid/"},
        {"PARTLABEL=", "by-partlabel/"},
    };
    for (const auto& [tag, folder] : folders) {
        if (!source.starts_with(tag)) continue;
        return std::string("/dev/disk/") + folder + WithoutQuotes(source.substr(tag.size()));
    }
    return {};
}

}  // namespace

std::vector<Swap> ParseSwaps(std::string_view text) {
    constexpr std::string_view deletedMark = " (deleted)";
    std::vector<Swap> swaps;
    for (std::string_view line; TakeLine(text, line);) {
        Swap swap;
        swap.path = PlainField(TakeField(line));
        swap.isFile = TakeField(line) == "file";
        const std::optional<std::uint64_t> size = NumberOf(TakeField(line));
        const std::optional<std::uint64_t> used = NumberOf(TakeField(line));
        if (!size || !used) continue;  // the heading
        swap.size = *size;
        swap.used = *used;
        if (swap.path.ends_with(deletedMark)) swap.path.resize(swap.path.size() - deletedMark.size());
        swaps.push_back(std::move(swap));
    }
    return swaps;
}

std::optional<std::vector<Swap>> ReadSwaps(const std::string& root) {
    const std::optional<std::string> text = ReadFileIfThere(root + "/proc/swaps");
    return text ? std::optional(ParseSwaps(*text)) : std::nullopt;
}

std::vector<FstabEntry> ParseFstab(std::string_view text) {
    std::vector<FstabEntry> entries;
    for (std::string_view line; TakeLine(text, line);) {
        FstabEntry entry;
        entry.source = PlainField(TakeField(line));
        entry.mountPoint = PlainField(TakeField(line));
        entry.fileSystem = TakeField(line);
        const std::string options(TakeField(line));
        if (entry.source.starts_with('#') || entry.fileSystem.empty()) continue;
        entry.isAutomatic = mnt_optstr_get_option(options.c_str(), "noauto", nullptr, nullptr) != 0;
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::optional<std::vector<FstabEntry>> ReadFstab(const std::string& root) {
    const std::optional<std::string> text = ReadFileIfThere(root + "/etc/fstab");
    return text ? std::optional(ParseFstab(*text)) : std::nullopt;
}

std::string DevicePathOf(const std::string& source, const std::string& root) {
    const std::string link = LinkOfTag(source);
    std::error_code failure;
    const std::string path = fs::canonical(root + (link.empty() ? source : link), failure).string();
    return failure ? source : path.substr(root.size());
}

std::optional<std::uint64_t> SizeOfDeviceOrFile(const std::string& path, const std::string& root) {
    constexpr std::uint64_t sectorSize = 512;
    const std::string device = path.substr(path.rfind('/') + 1);
    const bool isInDev = path.starts_with("/dev/");
    const auto sectors = isInDev ? ReadSystemNumber(root + "/sys/class/block/" + device + "/size") : std::nullopt;
    if (sectors) return *sectors * sectorSize;
    std::error_code failure;
    const std::uintmax_t size = fs::file_size(root + path, failure);
    return failure ? std::nullopt : std::optional<std::uint64_t>(size);
}

}  // namespace kv::facts
