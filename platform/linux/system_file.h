// Reading whole small files, such as those in which the kernel tells of itself.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

namespace platform {

/// read(2), again when it was interrupted.
ssize_t ReadOnce(int file, char* to, std::size_t room);

/// A whole file such as those below /proc and /sys; absent when it cannot be read; errno then has the
/// reason. Of a longer one, the first 16 MB.
std::optional<std::string> ReadSystemFile(const std::string& path);

}  // namespace platform
