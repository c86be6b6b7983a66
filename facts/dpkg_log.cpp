#include "facts/dpkg_log.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <optional>
#include <zlib.h>

#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

/// Years of updates; a log has about half a megabyte a month while a system is being set up, and much less later.
constexpr std::size_t maxBytes = std::size_t{32} * 1024 * 1024;

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

/// What the lines so far have told.
struct Reading {
    std::vector<PackageUpdate> begun;
    std::vector<PackageUpdate> finished;
};

void Finish(PackageUpdate update, Reading& reading) {
    if (update.version == update.formerVersion || update.time == 0) return;  // the same again, or no time of dpkg's
    update.package = WithoutArchitecture(update.package);
    std::erase_if(reading.finished, [&](const PackageUpdate& other) {
        return other.package == update.package && other.version == update.version;
    });
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
        reading.begun.push_back({std::string(package), std::string(TakeField(line)), std::string(former)});
    } else if (action == "status" && TakeField(line) == "installed") {
        const std::string_view package = TakeField(line);
        const std::string_view version = TakeField(line);
        const auto update = std::find_if(reading.begun.begin(), reading.begun.end(), [&](const PackageUpdate& begun) {
            return begun.package == package && begun.version == version;
        });
        if (update == reading.begun.end()) return;
        update->time = TimeOf(date, time).value_or(0);
        Finish(std::move(*update), reading);
        reading.begun.erase(update);
    }
}

using Archive = std::unique_ptr<gzFile_s, platform::ReleasedBy<gzclose>>;

/// The text of a log, compressed or not, of at most so many bytes; absent if it cannot be read.
std::optional<std::string> ReadLog(const std::string& path, std::size_t most) {
    const Archive file(gzopen(path.c_str(), "re"));
    if (!file) return std::nullopt;
    std::string text;
    std::array<char, 65536> block{};
    int got = 1;
    while (got > 0 && text.size() < most) {
        got = gzread(file.get(), block.data(), block.size());
        if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
    }
    return got < 0 ? std::nullopt : std::optional(std::move(text));
}

/// The logs of a folder, the newest first.
std::vector<std::string> LogsIn(const std::string& folder) {
    namespace fs = std::filesystem;
    std::vector<std::pair<fs::file_time_type, std::string>> logs;
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure)) {
        if (entry->path().filename().string().starts_with("dpkg.log"))
            logs.emplace_back(entry->last_write_time(failure), entry->path().string());
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
    return std::move(reading.finished);
}

DpkgLogs ReadDpkgLogs(const std::string& folder) {
    DpkgLogs logs;
    std::size_t left = maxBytes;
    for (const std::string& path : LogsIn(folder)) {
        logs.areAll = left > 0;
        if (!logs.areAll) break;
        std::optional<std::string> text = ReadLog(path, left);
        if (!text) {
            logs.unreadable.push_back(path);
            continue;
        }
        left -= std::min(left, text->size());
        logs.texts.push_back(std::move(*text));
    }
    std::reverse(logs.texts.begin(), logs.texts.end());
    return logs;
}

}  // namespace kv::facts
