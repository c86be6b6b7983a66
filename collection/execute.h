// One child process, from its start to its end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/text.h"

namespace kv {

/// The file that a process prints into, and how many bytes it may come to.
struct OutputBound {
    std::u16string path;
    std::uint64_t bytes = 0;
};

/// Starts a command line made by the platform and waits for it; 1 when it ended in time with an exit code that counts
/// as success (0, 1641, 3010), or was not to be waited for (wait false or 0 minutes), else 0. When its time is over, or
/// a look at its output (ten times a second) finds it beyond the bound, it is ended, and the result is 0. The last
/// thing to say about it is in remarks.
///
/// With a workingDirectory the whole process changes to it, and back at the end.
int execute(const OptionalText& workingDirectory, std::u16string_view commandLine, std::u16string& remarks,
            std::uint32_t waitMinutes, bool wait, const std::optional<OutputBound>& bound = std::nullopt);

}  // namespace kv
