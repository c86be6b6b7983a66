#include "platform/linux/system_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
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

namespace {

/// The first bytes of a file, at most so many; absent when it cannot be read.
std::optional<std::string> ReadStart(const Descriptor& file, std::size_t most) {
    std::string text;
    constexpr std::size_t firstBlock = 4096;
    for (std::size_t block = firstBlock; text.size() < most; block *= 2) {
        const std::size_t length = text.size();
        const std::size_t room = std::min(block, most - length);
        text.resize(length + room);
        const ssize_t got = ReadOnce(file.get(), text.data() + length, room);
        text.resize(length + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0) return std::nullopt;
        if (got == 0) break;
    }
    return text;
}

}  // namespace

Descriptor OpenOrdinaryFile(const std::string& path, int flags) {
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
    struct stat facts {};
    if (!file || fstat(file.get(), &facts) != 0) return Descriptor();
    if (S_ISREG(facts.st_mode)) return file;
    file.Close();
    errno = S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    return file;
}

std::optional<std::string> ReadSystemFile(const std::string& path) {
    constexpr std::size_t maxFileBytes = std::size_t{16} * 1024 * 1024;
    const Descriptor file = OpenOrdinaryFile(path);
    return file ? ReadStart(file, maxFileBytes) : std::nullopt;
}

std::optional<std::string> ReadOrdinaryFile(const std::string& path, std::size_t most, int flags) {
    const Descriptor file = OpenOrdinaryFile(path, flags);
    std::optional<std::string> text = file ? ReadStart(file, most + 1) : std::nullopt;
    if (!text || text->size() <= most) return text;
    errno = EFBIG;
    return std::nullopt;
}

}  // namespace platform
