// Record files: their names, numbers and writing. A file is written under a name that "*.txt" does not match and
// renamed when it is complete, so that a file still being written is never packed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Changes to gv_ocAgentBinPath, makes the data directory and returns its path; caller is the name in the log lines.
std::u16string PrepareDataDirectory(const char* caller);

/// Takes the next number, under its lock, and gives the path of that record file without extension. A number that a
/// file in the directory still has is passed over: after a crash the numbers are rebuilt from file names, which goes
/// wrong with an agent key that holds "_" or ".", and an unsent record must not be written over.
std::u16string NextRecordPath(std::u16string_view dataDirectory);

/// Writes a finished record text, in UTF-16LE without byte order mark, into the data directory under the next number,
/// and gives the file's path. A file that cannot be written is logged with the system's reason; its record is lost and
/// nothing is left of it on the disk.
std::optional<std::u16string> WriteRecordFile(std::u16string_view dataDirectory, std::u16string_view json);

/// Settles the last used file numbers from the registry and from the files on disk. Called once before any collection.
void VerifyLastFileNum();

/// Stores the last used file numbers, so that no later run gives a name to other content. A number that cannot be
/// stored leaves a line at level 1; one that was never settled is not stored.
void StoreLastFileNum();

/// The highest number among the files that match a pattern, 0 for none. The number is the third part of a name split at
/// "_" and "."; one that is too big to be followed by another is passed over with a log line.
std::uint32_t parseFiles(std::u16string_view pattern);

/// Deletes what a killed run left unfinished in the data directory, with a log line for each file. Called once before
/// any collection.
void RemoveUnfinishedRecordFiles();

}  // namespace kv
