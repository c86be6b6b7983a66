#include "facts/network/share_files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <set>
#include <system_error>

#include "facts/network/samba_config.h"
#include "facts/software/distribution.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// What Samba itself takes for a usershare; everybody may write into their folder.
constexpr std::size_t maxUserShareBytes = 10240;
constexpr std::size_t maxUserShareFiles = 10000;

constexpr std::size_t maxConfigBytes = std::size_t{16} * 1024 * 1024;

std::string InLowerCase(std::string_view text) {
    std::string lower(text);
    for (char& letter : lower) letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    return lower;
}

bool IsYes(const std::string& value) {
    const std::string lower = InLowerCase(value);
    return lower == "yes" || lower == "true" || lower == "1" || lower == "on";
}

// Samba.

bool IsSet(const SambaSettings& settings, const char* name, bool otherwise) {
    const std::string value = ValueIn(settings, name);
    return value.empty() ? otherwise : IsYes(value);
}

bool IsOrdinary(const SambaSection& section) {
    const std::string name = PlainSambaName(section.name);
    return !name.empty() && name != "global" && name != "homes" && name != "printers";
}

/// Absent if it is switched off, or has no path, without which Samba does not offer it.
std::optional<Share> ShareOf(const std::string& name, const SambaSettings& settings) {
    Share share;
    share.name = name;
    share.path = ValueIn(settings, "path");
    share.comment = ValueIn(settings, "comment");
    share.isPrinter = IsSet(settings, "printable", false);
    share.mostUsers = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(NumberOf(ValueIn(settings, "maxconnections")).value_or(0), UINT32_MAX));
    return share.path.empty() || !IsSet(settings, "available", true) ? std::nullopt : std::optional(share);
}

bool RefersElsewhere(const SambaSettings& settings) {
    return !ValueIn(settings, "include").empty() || !ValueIn(settings, "copy").empty() ||
           IsSet(settings, "registryshares", false) || InLowerCase(ValueIn(settings, "configbackend")) == "registry";
}

// NFS.

int OctalDigit(char digit) { return digit >= '0' && digit <= '7' ? digit - '0' : -1; }

/// The byte that "\040" stands for at a place; absent if there is no such escape.
std::optional<char> EscapedAt(std::string_view text, std::size_t at) {
    constexpr int base = 8;
    constexpr int bytes = 256;
    if (text.size() < at + 4 || text[at] != '\\') return std::nullopt;
    int number = 0;
    for (std::size_t digit = at + 1; digit < at + 4; ++digit) {
        if (OctalDigit(text[digit]) < 0) return std::nullopt;
        number = number * base + OctalDigit(text[digit]);
    }
    return number < bytes ? std::optional(static_cast<char>(number)) : std::nullopt;
}

/// Takes the path off the start of a line, which may stand in quotes.
std::string TakePath(std::string_view& line) {
    std::string path;
    bool isQuoted = false;
    std::size_t at = 0;
    for (; at < line.size(); ++at) {
        const bool isBlank = line[at] == ' ' || line[at] == '\t';
        if (isBlank && !isQuoted) break;
        if (line[at] == '"') {
            isQuoted = !isQuoted;
        } else if (const std::optional<char> escaped = EscapedAt(line, at)) {
            path += *escaped;
            at += 3;
        } else {
            path += line[at];
        }
    }
    line.remove_prefix(at);
    return path;
}

/// The hosts of a line, without their options; those options that begin with a dash are for all.
std::string HostsIn(std::string_view line) {
    std::string hosts;
    for (std::string_view field = TakeField(line); !field.empty(); field = TakeField(line)) {
        if (field.starts_with('-')) continue;
        const std::string_view host = field.substr(0, field.find('('));
        hosts.append(hosts.empty() ? "" : " ").append(host.empty() ? "*" : host);
    }
    return hosts.empty() ? "*" : hosts;
}

// Files.

/// What has been read, and what went wrong.
struct Reading {
    const std::string& root;
    const ShareNotice& notice;
    FoundShares found;

    void fail(const std::string& path, int failure) {
        if (found.failure == 0) found.failure = failure;
        notice(path + " cannot be read: its shares are left out");
    }

    /// The text of a file; absent if it does not exist or cannot be read.
    std::optional<std::string> textOf(const std::string& path) {
        std::optional<std::string> text = platform::ReadOrdinaryFile(path, maxConfigBytes);
        const int failure = errno;
        if (!text && failure != ENOENT) fail(path, failure);
        return text;
    }

    /// The files of a folder, in the order of names, at most so many; none if there is no such folder, or it cannot be
    /// read.
    std::vector<std::string> filesIn(const std::string& folder) {
        std::vector<std::string> files;
        std::error_code failure;
        fs::directory_iterator at(folder, failure);
        for (const fs::directory_iterator end; !failure && at != end && files.size() < maxUserShareFiles;
             at.increment(failure)) {
            files.push_back(at->path().string());
        }
        if (failure && failure != std::errc::no_such_file_or_directory) fail(folder, failure.value());
        if (!failure && at != fs::directory_iterator()) notice(folder + " has too many files: some are left out");
        std::ranges::sort(files);
        return files;
    }
};

/// How many shares users may have: not any, unless Samba is set up so. Debian and its like have changed that.
std::uint64_t UsualUserShares(const std::string& root) {
    constexpr std::uint64_t debians = 100;
    const std::string text = ReadFileIfThere(root + "/etc/os-release").value_or("");
    std::string family = AssignedValue(text, "ID").value_or("") + " " + AssignedValue(text, "ID_LIKE").value_or("");
    std::string_view names = family;
    for (std::string_view name = TakeField(names); !name.empty(); name = TakeField(names)) {
        if (name == "debian" || name == "ubuntu") return debians;
    }
    return 0;
}

/// Users may put anything into the folder. As Samba does, this passes over what is not a usershare, and keeps to the
/// first share of a name.
void AddUserShares(const std::string& folder, std::uint64_t most, Reading& reading) {
    std::size_t others = 0;
    std::uint64_t shares = 0;
    std::set<std::string> names;
    for (const Share& share : reading.found.shares) names.insert(PlainSambaName(share.name));
    for (const std::string& file : reading.filesIn(folder)) {
        if (shares == most) break;
        const std::optional<std::string> text = platform::ReadOrdinaryFile(file, maxUserShareBytes, O_NOFOLLOW);
        if (!text && (errno == EACCES || errno == EPERM || errno == EIO)) {
            reading.fail(file, errno);
            continue;
        }
        std::optional<Share> share = text ? ParseUserShare(*text) : std::nullopt;
        if (share && share->name.empty()) share->name = fs::path(file).filename().string();
        if (!share || !names.insert(PlainSambaName(share->name)).second) {
            ++others;
            continue;
        }
        ++shares;
        reading.found.shares.push_back(std::move(*share));
    }
    if (others == 0) return;
    reading.notice(fmt::format("{}: {} files that are not usershares, or repeat a name, are left out", folder, others));
}

void AddSambaShares(Reading& reading) {
    const std::string config = reading.root + "/etc/samba/smb.conf";
    const std::optional<std::string> text = reading.textOf(config);
    if (!text) return;  // Samba does not run without it
    SambaShares configured = ParseSambaConfig(*text);
    reading.found.shares = std::move(configured.shares);
    if (configured.isPartial)
        reading.notice(config + " refers to other places: shares that are set there are left out");
    const std::uint64_t most = configured.mostUserShares ? *configured.mostUserShares : UsualUserShares(reading.root);
    if (most > 0) AddUserShares(reading.root + configured.userShares, most, reading);
}

/// What is exported now, as the server's own list says; without such a list, what is to be exported.
void AddExports(Reading& reading) {
    std::optional<std::string> text = reading.textOf(reading.root + "/var/lib/nfs/etab");
    if (!text) {
        text = reading.textOf(reading.root + "/etc/exports").value_or("");
        for (const std::string& file : reading.filesIn(reading.root + "/etc/exports.d")) {
            if (file.ends_with(".exports")) *text += '\n' + reading.textOf(file).value_or("");
        }
    }
    const std::vector<Share> exports = ParseExports(*text);
    reading.found.shares.insert(reading.found.shares.end(), exports.begin(), exports.end());
}

}  // namespace

SambaShares ParseSambaConfig(std::string_view text) {
    SambaShares found;
    const std::vector<SambaSection> sections = ParseSambaSections(text);
    const SambaSettings& global = sections.front().settings;
    const std::string folder = ValueIn(global, "usersharepath");
    if (!folder.empty()) found.userShares = folder;
    found.mostUserShares = NumberOf(ValueIn(global, "usersharemaxshares"));
    for (const SambaSection& section : sections) {
        found.isPartial = found.isPartial || RefersElsewhere(section.settings);
        if (!IsOrdinary(section)) continue;
        SambaSettings settings = section.settings;
        settings.insert(global.begin(), global.end());  // what a section does not set is as in [global]
        if (const std::optional<Share> share = ShareOf(section.name, settings)) found.shares.push_back(*share);
    }
    return found;
}

std::optional<Share> ParseUserShare(std::string_view text) {
    if (!text.starts_with("#VERSION ")) return std::nullopt;
    Share share;
    for (std::string_view line; TakeLine(text, line);) {
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, equals);
        const std::string_view value = line.substr(equals + 1);
        if (key == "path") share.path = value;
        if (key == "comment") share.comment = value;
        if (key == "sharename") share.name = value;
    }
    return share.path.empty() ? std::nullopt : std::optional(share);
}

std::vector<Share> ParseExports(std::string_view text) {
    std::vector<Share> exports;
    std::map<std::string, std::size_t> places;  // of the exports, by path
    std::string line;
    while (TakeJoinedLine(text, line)) {
        std::string_view rest = std::string_view(line).substr(0, line.find('#'));
        const std::string path = TakePath(rest);
        if (!path.starts_with('/')) continue;
        const auto [place, isNew] = places.try_emplace(path, exports.size());
        if (isNew) exports.push_back({.name = path, .path = path, .comment = ""});
        std::string& hosts = exports[place->second].comment;
        hosts += (isNew ? "" : " ") + HostsIn(rest);
    }
    return exports;
}

FoundShares ReadShares(const std::string& root, const ShareNotice& notice) {
    Reading reading{root, notice, {}};
    AddSambaShares(reading);
    AddExports(reading);
    return std::move(reading.found);
}

}  // namespace kv::facts
