// The entries of systemd's journal, by sd-journal(3), the newest first.
//
// Each file of the journal is read on its own and the entries are merged here, so that a damaged file costs no more
// than itself, and is known. Within a file numbers only rise, and so do times (a clock that is set back makes the
// journal begin a new file): a bound is found at once. Only where the computer was started again with its clock behind
// do times fall within a file. If times are bounded, such a file is read by number, from its end down to the first boot
// that has any of them.
//
// Any thread may call the routines. They throw std::bad_alloc.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kv::facts {

/// A field of an entry is read up to here: a single one may have hundreds of megabytes.
inline constexpr std::size_t maxJournalField = 32768;

/// Files that one reading has open at once at most, the ones last written to, and no more than a quarter of those that
/// this process may open. The journal keeps a hundred in each folder unless it is told otherwise.
inline constexpr std::size_t maxJournalFiles = 400;

/// Texts are bytes as they were logged, be they UTF-8 or not; empty when the entry does not have them.
struct JournalEntry {
    std::uint32_t number = 0;               // of the sequence in which entries are written, its lower 32 bits
    std::int64_t written = 0;               // when the journal took it, microseconds since 1970
    std::optional<std::int64_t> generated;  // when its source sent it, microseconds since 1970
    std::optional<std::uint64_t> priority;  // of syslog(3), 0 to 7
    std::optional<std::uint64_t> facility;  // of syslog(3), its number without the shift
    std::string identifier;                 // SYSLOG_IDENTIFIER
    std::string command;                    // _COMM
    std::string message;
    std::string messageId;  // 32 hexadecimal digits
    std::string userId;     // _UID, decimal
    std::string hostName;
};

/// Conditions on fields, such as "PRIORITY=3": different fields must all match, and of one field any.
using JournalMatches = std::vector<std::string>;

struct JournalSelection {
    std::uint32_t lowestNumber = 0;
    std::uint32_t highestNumber = std::numeric_limits<std::uint32_t>::max();
    std::int64_t earliest = 0;  // of the time written
    std::int64_t latest = std::numeric_limits<std::int64_t>::max();
    std::vector<JournalMatches> alternatives = {};  // any of these; empty: all entries
    std::chrono::steady_clock::time_point limit = std::chrono::steady_clock::time_point::max();
};

/// What a reading could see, and could not.
struct JournalReading {
    std::size_t files = 0;     // all that were found
    std::size_t read = 0;      // those whose newest selected entry was found, or that have none
    std::size_t denied = 0;    // files and folders that may not be read
    std::size_t failures = 0;  // places in files, or whole ones, that could not be read
    std::string firstFailure;  // file and reason
    std::size_t leftOut = 0;   // files beyond those that may be open
    bool isOverdue = false;    // the selection's limit has passed
};

/// The folders of this computer's own journal, whether they are there or not: the lasting one, and the one in memory.
/// Empty when the computer has no machine id.
std::vector<std::string> JournalFolders();

/// The journal's files in the folders, the one last written to first. Folders that cannot be listed are added to the
/// reading's denied or failures.
std::vector<std::string> FindJournalFiles(const std::vector<std::string>& folders, JournalReading& reading);

/// Hands over the selected entries, the newest first (those of one file by their numbers), until take returns false or
/// the selection's limit has passed. A file that is cut off, or whose disk fails, while it is read gives what was read
/// before.
JournalReading ReadJournal(const std::vector<std::string>& folders, const JournalSelection& selection,
                           const std::function<bool(const JournalEntry& entry)>& take);

/// How many entries match any of the alternatives, those of copies of a file once; absent when that is not known within
/// the limit, or a file cannot be read.
std::optional<std::uint64_t> CountJournalEntries(const std::vector<std::string>& folders,
                                                 const std::vector<JournalMatches>& alternatives,
                                                 std::chrono::steady_clock::time_point limit);

}  // namespace kv::facts
