// Record files: their names, numbers and writing. A file is written under a name that "*.txt" does not match and renamed
// when it is complete, so that a file still being written is never packed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// Changes to gv_ocAgentBinPath, makes the data directory and returns its path; caller is the name in the log lines.
std::u16string PrepareDataDirectory(const char* caller);

/// Takes the next number, under its lock, and gives "\Agent_<key>_<number>" without extension.
std::u16string NextRecordName();

/// Writes a finished record text into the data directory under the next number; caller is the name in the log lines.
void WriteRecordFile(const char* caller, std::u16string_view json);

/// Settles the last used file numbers from the registry and from the files on disk. Called once before any collection.
void VerifyLastFileNum();

/// The highest number among the files that match a pattern, 0 for none.
std::uint32_t parseFiles(std::u16string_view pattern);

/// Deletes what a killed run left unfinished in the data directory. Called once before any collection.
void RemoveUnfinishedRecordFiles();

}  // namespace kv
