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

/// Opens an ordinary file for reading, such as those of /proc and /sys are, too. It waits for nothing, as opening a
/// pipe would forever. An invalid descriptor when it cannot be opened, with the reason in errno: EISDIR for a folder,
/// EINVAL for another thing that is not an ordinary file. flags: more of open(2), such as O_NOFOLLOW.
Descriptor OpenOrdinaryFile(const std::string& path, int flags = 0);

/// The text of an ordinary file; absent when it cannot be read, with the reason in errno, as above. Of one that is
/// longer than any of /proc, /sys and /etc should be, the first 16 MB.
std::optional<std::string> ReadSystemFile(const std::string& path);

/// The text of an ordinary file of at most so many bytes; absent when it cannot be read, as above, or is longer: EFBIG.
std::optional<std::string> ReadOrdinaryFile(const std::string& path, std::size_t most, int flags = 0);

}  // namespace platform
