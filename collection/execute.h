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

/// Starts a command line made by the platform and waits for it, unless wait is false or waitMinutes is 0. The result is
/// 1 when it ended in time with an exit code that counts as success (0, 1641, 3010), and when it was started and not
/// waited for; otherwise 0. The process is ended when its time is over (a little later, because each look at its output
/// takes time, too), when waiting fails, and when a look at its output, ten times a second, finds more than the bound.
/// remarks becomes the last log line about it, and is left alone when nothing was logged.
///
/// With a workingDirectory the whole process changes to it, and back at the end.
int execute(const OptionalText& workingDirectory, std::u16string_view commandLine, std::u16string& remarks,
            std::uint32_t waitMinutes, bool wait, const std::optional<OutputBound>& bound = std::nullopt);

}  // namespace kv
