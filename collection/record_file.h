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

/// Takes the next number, under its lock, and gives "\Agent_<key>_<number>" without extension. A number is used up
/// whatever becomes of its file. Callable from any thread.
std::u16string NextRecordName();

/// Writes a finished record text, in UTF-16LE without byte order mark, into the data directory under the next number,
/// and gives the file's path. A file that cannot be written is logged with the system's reason; its record is lost and
/// nothing is left of it on the disk.
std::optional<std::u16string> WriteRecordFile(std::u16string_view dataDirectory, std::u16string_view json);

/// Settles the last used file numbers from the registry and from the files on disk. Called once before any collection.
void VerifyLastFileNum();

/// The highest number among the files that match a pattern, 0 for none. The number is the third part of a name split at
/// "_" and "."; one that is too big to be followed by another is passed over with a log line.
std::uint32_t parseFiles(std::u16string_view pattern);

/// Deletes what a killed run left unfinished in the data directory, with a log line for each file. Called once before
/// any collection.
void RemoveUnfinishedRecordFiles();

}  // namespace kv
