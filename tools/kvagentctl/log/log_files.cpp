#include "tools/kvagentctl/log/log_files.h"

#include <algorithm>
#include <array>
#include <map>

#include "agent/log_file.h"
#include "foundation/text.h"

namespace kv::control {

namespace {

constexpr std::size_t headBytes = 64;
constexpr std::size_t blockBytes = 65536;
constexpr std::uint32_t mostLogs = 10000;  // that are looked at; more are not kept by any sensible setting

constexpr std::u16string_view extension = u".log";

platform::Error OpenForReading(OpenFile& file, std::u16string_view path) {
    return file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                     platform::FileDisposition::openExisting);
}

/// Leaves the file at the end of what it has read.
std::string Beginning(platform::FileHandle file) {
    platform::Files().SetFilePointerEx(file, 0);
    std::array<char, headBytes> bytes{};
    std::size_t read = 0;
    if (platform::Files().ReadFile(file, bytes.data(), bytes.size(), read) != platform::error::success) return {};
    return {bytes.data(), read};
}

}  // namespace

std::vector<std::u16string> EarlierLogs(std::u16string_view path) {
    const std::u16string_view stem = path.substr(0, path.rfind(extension));
    const std::u16string_view stemName = stem.substr(stem.find_last_of(u"\\/") + 1);
    std::map<std::int32_t, std::u16string, std::greater<>> numbered;
    for (FileSearch search(std::u16string(stem) + u"*.log"); search.hasFile(); search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (name.size() <= stemName.size() + extension.size()) continue;
        const std::int32_t number =
            ParseDecimal(name.substr(stemName.size(), name.size() - stemName.size() - extension.size()));
        if (number > 0) numbered.emplace(number, LogFileNameAt(path, static_cast<std::uint32_t>(number)));
    }
    std::vector<std::u16string> paths;
    paths.reserve(numbered.size());
    for (const auto& [number, name] : numbered) paths.push_back(name);
    return paths;
}

std::string LogFollower::Head(std::u16string_view path) {
    OpenFile file;
    return OpenForReading(file, path) == platform::error::success ? Beginning(file.handle) : std::string();
}

bool LogFollower::Open(std::u16string_view path) {
    file_.Close();
    head_.clear();
    position_ = 0;
    return OpenForReading(file_, path) == platform::error::success;
}

std::string LogFollower::LookAtFile() {
    std::string own = Beginning(file_.handle);
    std::uint64_t size = 0;
    const bool isMeasured = platform::Files().GetFileSizeEx(file_.handle, size) == platform::error::success;
    if (!own.starts_with(head_) || (isMeasured && size < position_)) position_ = 0;  // it was emptied
    head_ = own;
    return own;
}

void LogFollower::ReadOn(const Take& take) {
    platform::Files().SetFilePointerEx(file_.handle, position_);
    std::array<char, blockBytes> block{};
    std::size_t read = 0;
    while (file_.handle != 0 &&
           platform::Files().ReadFile(file_.handle, block.data(), block.size(), read) == platform::error::success &&
           read > 0) {
        position_ += read;
        take({block.data(), read});
    }
}

std::vector<std::u16string> LogFollower::LogsInBetween() const {
    std::vector<std::u16string> logs;
    for (std::uint32_t number = 1; number <= mostLogs; ++number) {
        const std::u16string path = LogFileNameAt(path_, number);
        const std::string head = Head(path);
        // The file at hand may have been deleted; a head begins with its date, and an older one was read or is not
        // wanted.
        if (head.empty() || head.starts_with(head_) || head < head_) break;
        logs.insert(logs.begin(), path);
    }
    return logs;
}

bool LogFollower::ReadNew(const Take& take) {
    if (file_.handle == 0 && !Open(path_)) return false;
    // Looked at before the rest is read: once another file has the name, nothing more comes into this one. In this
    // order the file at hand begins with what the name's file begins with, if they are the same.
    const std::string now = Head(path_);
    const bool isReplaced = !LookAtFile().starts_with(now);
    ReadOn(take);
    if (!isReplaced) return true;
    for (const std::u16string& path : LogsInBetween()) {
        if (Open(path)) ReadOn(take);
    }
    if (!Open(path_)) return true;
    LookAtFile();
    ReadOn(take);
    return true;
}

}  // namespace kv::control
