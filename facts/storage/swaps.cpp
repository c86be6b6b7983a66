#include "facts/storage/swaps.h"

#include <cstdlib>
#include <filesystem>
#include <libmount.h>
#include <memory>
#include <strings.h>

#include "facts/storage/block_devices.h"
#include "facts/storage/volume_facts.h"
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

/// A tag by which fstab may name a device, and the folder of the links that stand for such tags.
struct TagKind {
    std::string_view mark;
    const char* folder;
    bool hasCase;  // udev writes a UUID in capitals or in small letters by the kind of file system
};

constexpr TagKind tagKinds[] = {
    {"UUID=", "/dev/disk/by-uuid", false},
    {"LABEL=", "/dev/disk/by-label", true},
    {"PARTUUID=", "/dev/disk/by-partuuid", false},
    {"PARTLABEL=", "/dev/disk/by-partlabel", true},
};

/// The link in a folder whose name, without its escapes, is the name wanted; empty if there is no such link.
std::string LinkNamed(const std::string& wanted, const std::string& folder, bool hasCase) {
    std::error_code failure;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
        const std::string name = PlainDiskName(at->path().filename().string());
        if (hasCase ? name == wanted : strcasecmp(name.c_str(), wanted.c_str()) == 0) return at->path().string();
    }
    return {};
}

/// The path below a root of what a source stands for: the link for a tag, empty if there is no such link, or else the
/// source.
std::string PathOfSource(const std::string& source, const std::string& root) {
    for (const auto& [mark, folder, hasCase] : tagKinds) {
        if (source.starts_with(mark))
            return LinkNamed(WithoutQuotes(source.substr(mark.size())), root + folder, hasCase);
    }
    return root + source;
}

/// People write a slash at the end of some mount points; the kernel does not.
std::string WithoutSlashesAtEnd(std::string path) {
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return path;
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
        entry.mountPoint = WithoutSlashesAtEnd(PlainField(TakeField(line)));
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
    std::error_code failure;
    const std::string path = fs::canonical(PathOfSource(source, root), failure).string();
    return failure ? source : path.substr(root.size());
}

std::optional<std::uint64_t> SizeOfDeviceOrFile(const std::string& path, const std::string& root) {
    constexpr std::uint64_t sectorSize = 512;
    const std::string device = NameOfBlockDevice(path);
    const bool isInDev = path.starts_with("/dev/");
    const auto sectors = isInDev ? ReadSystemNumber(root + "/sys/class/block/" + device + "/size") : std::nullopt;
    if (sectors) return *sectors * sectorSize;
    std::error_code failure;
    const std::uintmax_t size = fs::file_size(root + path, failure);
    return failure ? std::nullopt : std::optional<std::uint64_t>(size);
}

}  // namespace kv::facts
