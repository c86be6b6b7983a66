#include "facts/share_files.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// Lines in which one that ends with a backslash goes on in the next.
bool TakeWholeLine(std::string_view& text, std::string& whole) {
    whole.clear();
    bool isTaken = false;
    for (std::string_view line; TakeLine(text, line);) {
        isTaken = true;
        line = Trimmed(line);
        if (!line.ends_with('\\')) {
            whole += line;
            break;
        }
        line.remove_suffix(1);
        whole += line;
    }
    return isTaken;
}

std::string InLowerCase(std::string_view text) {
    std::string lower(text);
    for (char& letter : lower) letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    return lower;
}

/// A name as Samba compares it: without regard to case and to blanks.
std::string PlainName(std::string_view name) {
    std::string plain = InLowerCase(name);
    std::erase_if(plain, [](char letter) { return letter == ' ' || letter == '\t'; });
    return plain;
}

bool IsYes(const std::string& value) {
    const std::string lower = InLowerCase(value);
    return lower == "yes" || lower == "true" || lower == "1" || lower == "on";
}

// Samba.

using Settings = std::map<std::string, std::string>;  // by plain name

struct Section {
    std::string name;
    Settings settings;
};

/// The value of a setting; empty if it is not set.
std::string ValueIn(const Settings& settings, const char* name) {
    const auto found = settings.find(name);
    return found != settings.end() ? found->second : "";
}

bool IsSet(const Settings& settings, const char* name, bool otherwise) {
    const std::string value = ValueIn(settings, name);
    return value.empty() ? otherwise : IsYes(value);
}

/// A setting's plain name: one for those that have two.
std::string SettingName(std::string_view name) {
    const std::string plain = PlainName(name);
    if (plain == "directory") return "path";
    return plain == "printok" ? "printable" : plain;
}

/// The section of a name, which a file may open more than once.
Section& SectionOf(std::vector<Section>& sections, std::string_view name) {
    const auto found = std::ranges::find_if(
        sections, [&](const Section& section) { return PlainName(section.name) == PlainName(name); });
    return found != sections.end() ? *found : sections.emplace_back(Section{std::string(name), {}});
}

/// The first is [global], where settings before any section belong, too.
std::vector<Section> ParseSections(std::string_view text) {
    std::vector<Section> sections{{"global", {}}};
    std::string current = "global";
    std::string line;
    while (TakeWholeLine(text, line)) {
        if (line.empty() || line.front() == '#' || line.front() == ';') continue;
        const std::size_t end = line.find(']');
        if (line.front() == '[' && end != std::string::npos) {
            current = Trimmed(line.substr(1, end - 1));
            SectionOf(sections, current);
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string_view value = Trimmed(std::string_view(line).substr(equals + 1));
        SectionOf(sections, current).settings[SettingName(line.substr(0, equals))] = value;
    }
    return sections;
}

bool IsOrdinary(const Section& section) {
    const std::string name = PlainName(section.name);
    return name != "global" && name != "homes" && name != "printers";
}

/// Absent if it is switched off, or has no path, without which Samba does not offer it.
std::optional<Share> ShareOf(const std::string& name, const Settings& settings) {
    Share share;
    share.name = name;
    share.path = ValueIn(settings, "path");
    share.comment = ValueIn(settings, "comment");
    share.isPrinter = IsSet(settings, "printable", false);
    share.mostUsers = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(NumberOf(ValueIn(settings, "maxconnections")).value_or(0), UINT32_MAX));
    return share.path.empty() || !IsSet(settings, "available", true) ? std::nullopt : std::optional(share);
}

bool RefersElsewhere(const Settings& settings) {
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

void AddExport(std::vector<Share>& exports, std::string path, const std::string& hosts) {
    const auto found = std::ranges::find(exports, path, &Share::path);
    if (found != exports.end()) {
        found->comment += ' ' + hosts;
        return;
    }
    Share& added = exports.emplace_back();
    added.name = path;
    added.path = std::move(path);
    added.comment = hosts;
}

// Files.

/// The text of a file; absent if there is no such file, or with a notice if it cannot be read.
std::optional<std::string> ReadIfThere(const std::string& path, const ShareNotice& notice) {
    std::error_code failure;
    if (!fs::exists(path, failure) && !failure) return std::nullopt;
    std::optional<std::string> text;
    if (!failure) text = platform::ReadSystemFile(path);
    if (!text) notice(path + " cannot be read: its shares are left out");
    return text;
}

/// The files of a folder, in the order of names; none if there is no such folder, or with a notice if it cannot be
/// read.
std::vector<std::string> FilesIn(const std::string& folder, const ShareNotice& notice) {
    std::vector<std::string> files;
    std::error_code failure;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
        files.push_back(at->path().string());
    }
    if (failure && failure != std::errc::no_such_file_or_directory)
        notice(folder + " cannot be read: its shares are left out");
    std::ranges::sort(files);
    return files;
}

void AddSambaShares(const std::string& root, const ShareNotice& notice, std::vector<Share>& shares) {
    const std::string config = root + "/etc/samba/smb.conf";
    const std::optional<std::string> text = ReadIfThere(config, notice);
    if (!text) return;  // Samba does not run without it
    SambaShares configured = ParseSambaConfig(*text);
    shares = std::move(configured.shares);
    if (configured.isPartial) notice(config + " refers to other places: shares that are set there are left out");
    if (configured.userShares.empty()) return;
    for (const std::string& file : FilesIn(root + configured.userShares, notice)) {
        const std::optional<std::string> userShare = ReadIfThere(file, notice);
        const std::optional<Share> share = userShare ? ParseUserShare(*userShare) : std::nullopt;
        if (share) shares.push_back(*share);
    }
}

/// What is exported now, as the server's own list says; without such a list, what is to be exported.
void AddExports(const std::string& root, const ShareNotice& notice, std::vector<Share>& shares) {
    std::optional<std::string> text = ReadIfThere(root + "/var/lib/nfs/etab", notice);
    if (!text) {
        text = ReadIfThere(root + "/etc/exports", notice).value_or("");
        for (const std::string& file : FilesIn(root + "/etc/exports.d", notice)) {
            if (file.ends_with(".exports")) *text += '\n' + ReadIfThere(file, notice).value_or("");
        }
    }
    const std::vector<Share> exports = ParseExports(*text);
    shares.insert(shares.end(), exports.begin(), exports.end());
}

}  // namespace

SambaShares ParseSambaConfig(std::string_view text) {
    SambaShares found;
    const std::vector<Section> sections = ParseSections(text);
    const Settings& global = sections.front().settings;
    const std::string folder = ValueIn(global, "usersharepath");
    if (!folder.empty()) found.userShares = folder;
    if (ValueIn(global, "usersharemaxshares") == "0") found.userShares.clear();
    for (const Section& section : sections) {
        found.isPartial = found.isPartial || RefersElsewhere(section.settings);
        if (!IsOrdinary(section)) continue;
        Settings settings = section.settings;
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
        if (equals == line.npos) continue;
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
    std::string line;
    while (TakeWholeLine(text, line)) {
        std::string_view rest = std::string_view(line).substr(0, line.find('#'));
        std::string path = TakePath(rest);
        if (path.starts_with('/')) AddExport(exports, std::move(path), HostsIn(rest));
    }
    return exports;
}

std::vector<Share> ReadShares(const std::string& root, const ShareNotice& notice) {
    std::vector<Share> shares;
    AddSambaShares(root, notice, shares);
    AddExports(root, notice, shares);
    return shares;
}

}  // namespace kv::facts
