#include "platform/linux/system_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/linux/descriptor.h"

namespace platform {

ssize_t ReadOnce(int file, char* to, std::size_t room) {
    ssize_t got = 0;
    do {
        got = read(file, to, room);
    } while (got < 0 && errno == EINTR);
    return got;
}

std::optional<std::string> ReadSystemFile(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return std::nullopt;
    std::string text;
    constexpr std::size_t maxFileBytes = 16 * 1024 * 1024;
    constexpr std::size_t firstBlock = 4096;
    for (std::size_t block = firstBlock; text.size() < maxFileBytes; block *= 2) {
        const std::size_t length = text.size();
        const std::size_t room = std::min(block, maxFileBytes - length);
        text.resize(length + room);
        const ssize_t got = ReadOnce(file.get(), text.data() + length, room);
        text.resize(length + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0) return std::nullopt;
        if (got == 0) break;
    }
    return text;
}

}  // namespace platform
