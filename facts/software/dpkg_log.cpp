#include "facts/software/dpkg_log.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <system_error>
#include <utility>
#include <zlib.h>

#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

/// What is kept of all logs, and how many are looked at, each of which may have too much: one a month for years.
constexpr std::size_t maxBytes = 2 * maxDpkgLogBytes;
constexpr std::size_t maxLogs = 100;

std::string_view WithoutArchitecture(std::string_view package) { return package.substr(0, package.find(':')); }

/// The moment of a line's "2026-11-26 16:19:07"; absent for other text.
std::optional<std::int64_t> TimeOf(std::string_view date, std::string_view time) {
    const std::string text = std::string(date) + " " + std::string(time);
    std::tm parts{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (end == nullptr || *end != '\0') return std::nullopt;
    parts.tm_isdst = -1;
    return std::mktime(&parts);
}

/// What the lines so far have told. Only the last update of a package can still be unfinished.
struct Reading {
    std::map<std::string, PackageUpdate, std::less<>> begun;  // by package with its architecture
    std::vector<PackageUpdate> finished;
    std::map<std::pair<std::string, std::string>, std::size_t> places;  // of those, by package and version
};

void Finish(PackageUpdate update, Reading& reading) {
    if (update.version == update.formerVersion || update.time == 0) return;  // the same again, or no time of dpkg's
    update.package = WithoutArchitecture(update.package);
    const auto [place, isNew] = reading.places.try_emplace({update.package, update.version}, reading.finished.size());
    if (!isNew) reading.finished[std::exchange(place->second, reading.finished.size())].package.clear();
    reading.finished.push_back(std::move(update));
}

/// "2026-11-26 16:19:07 upgrade bash:amd64 5.1 5.2" begins an update, and "... status installed bash:amd64 5.2" ends
/// it.
void ParseLine(std::string_view line, Reading& reading) {
    const std::string_view date = TakeField(line);
    const std::string_view time = TakeField(line);
    const std::string_view action = TakeField(line);
    if (action == "upgrade") {
        const std::string_view package = TakeField(line);
        const std::string_view former = TakeField(line);
        reading.begun.insert_or_assign(
            std::string(package),
            PackageUpdate{std::string(package), std::string(TakeField(line)), std::string(former)});
    } else if (action == "status" && TakeField(line) == "installed") {
        const std::string_view package = TakeField(line);
        const std::string_view version = TakeField(line);
        const auto update = reading.begun.find(package);
        if (update == reading.begun.end() || update->second.version != version) return;
        update->second.time = TimeOf(date, time).value_or(0);
        Finish(std::move(update->second), reading);
        reading.begun.erase(update);
    }
}

using Archive = std::unique_ptr<gzFile_s, platform::ReleasedBy<gzclose>>;

/// The start of a log, compressed or not: more than so many bytes if it has more. Absent if it cannot be read.
std::optional<std::string> ReadLog(const std::string& path, std::size_t most) {
    platform::Descriptor opened = platform::OpenOrdinaryFile(path);
    const Archive file(opened ? gzdopen(opened.get(), "r") : nullptr);
    if (!file) return std::nullopt;
    static_cast<void>(opened.Release());  // the archive's from now on
    std::string text;
    std::array<char, 65536> block{};
    int got = 1;
    while (got > 0 && text.size() <= most) {
        got = gzread(file.get(), block.data(), block.size());
        if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
    }
    return got < 0 ? std::nullopt : std::optional(std::move(text));
}

/// The logs of a folder, the newest first, which is the one without a number. failure: the folder cannot be read.
std::vector<std::string> LogsIn(const std::string& folder, std::error_code& failure) {
    namespace fs = std::filesystem;
    std::vector<std::pair<fs::file_time_type, std::string>> logs;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure)) {
        std::error_code gone;
        const std::string name = entry->path().filename().string();
        if (!name.starts_with("dpkg.log") || entry->is_directory(gone)) continue;
        const auto time = name == "dpkg.log" ? fs::file_time_type::max() : entry->last_write_time(gone);
        logs.emplace_back(time, entry->path().string());
    }
    std::sort(logs.rbegin(), logs.rend());
    std::vector<std::string> paths;
    paths.reserve(logs.size());
    for (auto& [time, path] : logs) paths.push_back(std::move(path));
    return paths;
}

}  // namespace

std::vector<PackageUpdate> ParseDpkgLogs(const std::vector<std::string>& texts) {
    Reading reading;
    for (std::string_view text : texts) {
        std::string_view line;
        while (TakeLine(text, line)) ParseLine(line, reading);
    }
    std::erase_if(reading.finished, [](const PackageUpdate& update) { return update.package.empty(); });
    return std::move(reading.finished);
}

DpkgLogs ReadDpkgLogs(const std::string& folder) {
    DpkgLogs logs;
    std::size_t bytes = 0;
    std::error_code failure;
    const std::vector<std::string> paths = LogsIn(folder, failure);
    if (failure && failure != std::errc::no_such_file_or_directory) logs.unreadable.push_back(folder);
    for (std::size_t at = 0; at < paths.size(); ++at) {
        logs.areAll = logs.areAll && at < maxLogs;
        if (!logs.areAll) break;
        std::optional<std::string> text = ReadLog(paths[at], maxDpkgLogBytes);
        if (!text) {
            logs.unreadable.push_back(paths[at]);
        } else if (text->size() > maxDpkgLogBytes) {
            logs.tooLong.push_back(paths[at]);
        } else {
            bytes += text->size();
            logs.areAll = bytes <= maxBytes;
            if (logs.areAll) logs.texts.push_back(std::move(*text));
        }
    }
    std::reverse(logs.texts.begin(), logs.texts.end());
    return logs;
}

}  // namespace kv::facts
