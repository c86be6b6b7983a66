// The updates of packages that dpkg's log tells of (dpkg.log, with times of local time).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// An installed package that took the place of another version.
struct PackageUpdate {
    std::string package;  // without its architecture
    std::string version;
    std::string formerVersion;
    std::int64_t time = 0;  // when it was done, seconds since 1970
};

/// The finished updates in the texts of the logs, oldest first. One that was done again, or for several architectures,
/// is listed once, with its last time. Any thread may parse.
std::vector<PackageUpdate> ParseDpkgLogs(const std::vector<std::string>& texts);

/// Years of updates; a log has about half a megabyte a month while a system is being set up, and much less later.
inline constexpr std::size_t maxDpkgLogBytes = std::size_t{16} * 1024 * 1024;

struct DpkgLogs {
    std::vector<std::string> texts;       // oldest first
    std::vector<std::string> unreadable;  // paths, of logs or of the folder
    std::vector<std::string> tooLong;     // paths of logs with more than a log may have, which were left out
    bool areAll = true;                   // false: the oldest were left out, to read a bounded amount
};

/// The logs in a folder such as /var/log: dpkg.log and the earlier ones, which may be compressed. One that is damaged
/// or too long costs no more than itself.
DpkgLogs ReadDpkgLogs(const std::string& folder);

}  // namespace kv::facts
