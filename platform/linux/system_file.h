// Reading whole small files, such as those in which the kernel tells of itself.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

#include "platform/linux/descriptor.h"

namespace platform {

/// read(2), again when it was interrupted.
ssize_t ReadOnce(int file, char* to, std::size_t room);

/// A whole file such as those below /proc and /sys; absent when it cannot be read; errno then has the
/// reason. Of a longer one, the first 16 MB.
std::optional<std::string> ReadSystemFile(const std::string& path);

/// The text of an ordinary file of at most so many bytes, for folders where others put files, too: opening a pipe there
/// would wait forever. Absent when it cannot be read, with the reason in errno: EINVAL for what is not an ordinary
/// file, EFBIG for a longer one. flags: more of open(2), such as O_NOFOLLOW.
std::optional<std::string> ReadOrdinaryFile(const std::string& path, std::size_t most, int flags = 0);

/// Opens an ordinary file for reading, as above; an invalid descriptor when it cannot be read.
Descriptor OpenOrdinaryFile(const std::string& path, int flags = 0);

}  // namespace platform
