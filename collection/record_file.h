// Record files: their names, numbers and writing. A file is written under a name that "*.txt" does not match, and
// renamed when it is complete, so that no half record is packed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"

namespace kv {

/// While it lives, records go to a folder of the owner's in the place of the data directory. For a program that shows
/// what is collected: as it never calls VerifyLastFileNum and StoreLastFileNum, the agent's numbers stay as they are,
/// too. One at a time, and only while nothing is collected on another thread.
class RecordDetour {
  public:
    explicit RecordDetour(std::u16string_view folder);
    ~RecordDetour();
    RecordDetour(const RecordDetour&) = delete;
    RecordDetour& operator=(const RecordDetour&) = delete;
};

/// Changes to gv_ocAgentBinPath, makes "data" below the working directory and gives its path. A step that fails leaves
/// a log line in the caller's name, and the others are done all the same. Under a RecordDetour that one's folder is
/// given, and nothing is made; without gv_ocAgentBinPath the working directory stays.
std::u16string PrepareDataDirectory(const char* caller);

/// Takes the next number, under its lock, and gives the path of that record file without extension. A number that a
/// file in the directory still has is skipped, because an unsent record must not be overwritten: after a crash the
/// numbers are rebuilt from file names, and that goes wrong when the agent key holds "_" or ".".
std::u16string NextRecordPath(std::u16string_view dataDirectory);

/// What tells a record of the plan from the others, also from those of its name. Refers to texts of the caller.
struct RecordIdentity {
    std::u16string_view name;    // in the plan
    std::u16string_view source;  // what it asks: its query, script or OID
};

/// Writes a finished record text, in UTF-16LE without byte order mark, into the data directory under the next number,
/// and gives the file's path. Null when it cannot be written: the record is lost, which TellRecordOutcome tells, and
/// nothing of it stays on the disk.
std::optional<std::u16string> WriteRecordFile(std::u16string_view dataDirectory, const RecordIdentity& record,
                                              std::u16string_view json);

/// Counts a record, by the outcome of writing its file. A record that begins to be lost, or for another reason, has a
/// line with its name in the plan, its file and the reason; true then. The same loss in the next period has none. Once
/// that record is written again, a line says how many were lost: the first one may have met a full disk, too. Throws
/// nothing; when memory runs out, the line is left out.
bool TellRecordOutcome(const char* caller, const RecordIdentity& record, std::u16string_view path,
                       platform::Error outcome) noexcept;

/// Sets the last used file numbers to the highest that the registry or a file on the disk has, and stores a number that
/// a file has raised. Waits while the registry cannot say, and asks each minute. Called once, before any collection.
void VerifyLastFileNum();

/// Stores the last used file numbers, so that no later run gives one of these names to other content. A number that
/// cannot be stored leaves a line at level 1, and its error is the result; the other one is stored all the same. Before
/// VerifyLastFileNum the numbers are 0, and nothing is stored.
platform::Error StoreLastFileNum();

/// The highest number among the files that match a pattern, 0 when none matches. The number is the third part of a name
/// split at "_" and "."; one that is too big to be followed by another is skipped, with a log line.
std::uint32_t parseFiles(std::u16string_view pattern);

/// Deletes what a killed run left unfinished in the data directory, with a log line for each file. Called once before
/// any collection.
void RemoveUnfinishedRecordFiles();

}  // namespace kv
