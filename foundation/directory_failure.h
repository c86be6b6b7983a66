// The log line for a directory that cannot be entered or made.
#pragma once

#include <cstdint>

#include "foundation/log.h"
#include "platform/files.h"

namespace kv {

struct DirectoryFailureLine {
    std::uint32_t level;  // 1 to 3, as of Log1 to Log3
    const char* format;   // for the arguments of LogDirectoryFailure and, behind them, the error number
};

/// What a caller says of each failure. One that it does not tell apart is left out and gets the last line.
struct DirectoryFailureLines {
    DirectoryFailureLine notFound = {};
    DirectoryFailureLine exists = {};
    DirectoryFailureLine invalid = {};
    DirectoryFailureLine other = {};

    const DirectoryFailureLine& For(int failure) const {
        const DirectoryFailureLine& line = failure == platform::directory_error::notFound  ? notFound
                                           : failure == platform::directory_error::exists  ? exists
                                           : failure == platform::directory_error::invalid ? invalid
                                                                                           : other;
        return line.format != nullptr ? line : other;
    }
};

/// Logs a failure of wmkdir, wchdir or wgetcwd (platform/files.h).
template <class... Arguments>
void LogDirectoryFailure(int failure, const DirectoryFailureLines& lines, const Arguments&... arguments) {
    const DirectoryFailureLine& line = lines.For(failure);
    if (LogsAtLeast(line.level)) log_detail::Write(line.format, arguments..., failure);
}

}  // namespace kv
