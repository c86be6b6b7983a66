// What scripts of records write to standard error, which the agent drops.
#pragma once

#include <string>
#include <vector>

#include "platform/process.h"

namespace kv::control {

/// While it lives, the scripts that this process starts write to standard error into a file. One at a time, and only
/// while one thread runs scripts.
class ScriptErrors {
  public:
    /// folder: of the file, as platform/files.h takes it.
    explicit ScriptErrors(const std::u16string& folder);

    /// The lines of the scripts that have run since the last call, in UTF-8. Of many only the first and the last ones
    /// are given, with a line about the rest between them, and of long ones the beginning.
    std::vector<std::string> Take();

  private:
    platform::ProcessOperations Operations();
    void EmptyLongFile();

    const std::u16string path_;
    std::string begun_;  // of a file that has become too long and was emptied
    const platform::ScopedOperations<platform::ProcessOperations> operations_;
};

}  // namespace kv::control
