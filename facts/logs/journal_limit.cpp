#include "facts/logs/journal_limit.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <sys/statvfs.h>
#include <system_error>
#include <utility>
#include <vector>

#include "facts/system_text.h"
#include "platform/linux/system_file.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// From the one that counts least; of equal names in them only the last is read.
constexpr const char* configurationFolders[] = {"/usr/lib/systemd", "/usr/local/lib/systemd", "/run/systemd",
                                                "/etc/systemd"};

/// The files in the order in which they are read.
std::vector<std::string> ConfigurationFiles(const std::string& root) {
    std::string main;
    std::map<std::string, std::string> dropIns;
    for (const char* place : configurationFolders) {
        const std::string folder = root + place;
        std::error_code failure;
        if (fs::exists(folder + "/journald.conf", failure)) main = folder + "/journald.conf";
        for (fs::directory_iterator at(folder + "/journald.conf.d", failure), end; !failure && at != end;
             at.increment(failure)) {
            if (at->path().extension() == ".conf") dropIns[at->path().filename().string()] = at->path().string();
        }
    }
    std::vector<std::string> files;
    if (!main.empty()) files.push_back(std::move(main));
    for (auto& [name, path] : dropIns) files.push_back(std::move(path));
    return files;
}

/// Leaves the limit absent if none is configured. False when a file cannot be read.
bool FindConfiguredLimit(const std::string& key, const std::string& root, std::optional<std::uint64_t>& limit) {
    constexpr std::size_t mostBytes = 1 << 20;  // far more than anyone writes
    for (const std::string& path : ConfigurationFiles(root)) {
        const std::optional<std::string> text = platform::ReadOrdinaryFile(path, mostBytes);
        if (!text) return false;
        const std::optional<std::string> setting = JournalSetting(*text, key);
        if (!setting) continue;
        const std::optional<std::uint64_t> size = JournalSizeOf(*setting);
        if (size || setting->empty()) limit = size;
    }
    return true;
}

}  // namespace

std::optional<std::string> JournalSetting(std::string_view text, std::string_view key) {
    std::optional<std::string> value;
    bool isInSection = false;
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        if (line.starts_with('[')) isInSection = line == "[Journal]";
        const std::size_t equals = line.find('=');
        if (!isInSection || equals == std::string_view::npos || Trimmed(line.substr(0, equals)) != key) continue;
        value = Trimmed(line.substr(equals + 1));
    }
    return value;
}

std::optional<std::uint64_t> JournalSizeOf(std::string_view text) {
    constexpr std::string_view units = "BKMGTPE";
    unsigned shift = 0;
    if (text.empty()) return std::nullopt;
    const std::size_t unit = units.find(text.back());
    if (unit != std::string_view::npos) {
        shift = static_cast<unsigned>(unit) * 10;
        text = Trimmed(text.substr(0, text.size() - 1));
    }
    const std::optional<std::uint64_t> number = NumberOf(text);
    if (!number || *number > std::numeric_limits<std::uint64_t>::max() >> shift) return std::nullopt;
    return *number << shift;
}

std::optional<std::uint64_t> JournalSpaceLimit(const std::string& folder, const std::string& root) {
    const bool isRuntime = folder.starts_with("/run/");
    std::optional<std::uint64_t> configured;
    if (!FindConfiguredLimit(isRuntime ? "RuntimeMaxUse" : "SystemMaxUse", root, configured)) return std::nullopt;
    if (configured) return configured;
    struct statvfs figures {};
    if (statvfs(folder.c_str(), &figures) != 0) return std::nullopt;
    constexpr std::uint64_t most = std::uint64_t{4} << 30;
    return std::min<std::uint64_t>(most, std::uint64_t{figures.f_blocks} * figures.f_frsize / 10);
}

}  // namespace kv::facts
