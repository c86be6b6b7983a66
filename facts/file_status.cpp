#include "facts/file_status.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace kv::facts {

namespace {

/// Some file systems take any time for a file's.
std::int64_t MicrosecondsOf(const struct statx_timestamp& time) {
    constexpr std::int64_t perSecond = 1'000'000;
    constexpr std::int64_t latest = std::numeric_limits<std::int64_t>::max() / perSecond - 1;
    return std::clamp<std::int64_t>(time.tv_sec, -latest, latest) * perSecond + time.tv_nsec / 1000;
}

FileKind KindOf(unsigned mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return FileKind::folder;
        case S_IFCHR:
            return FileKind::characterDevice;
        case S_IFBLK:
            return FileKind::blockDevice;
        case S_IFIFO:
            return FileKind::pipe;
        case S_IFSOCK:
            return FileKind::socket;
        case S_IFLNK:
            return FileKind::brokenLink;
        default:
            return FileKind::regular;
    }
}

int Ask(const std::string& path, int flags, struct statx& answer) {
    constexpr unsigned wanted = STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID;
    return statx(AT_FDCWD, path.c_str(), flags | AT_NO_AUTOMOUNT, wanted, &answer) == 0 ? 0 : errno;
}

bool MayBe(const std::string& path, int way) { return faccessat(AT_FDCWD, path.c_str(), way, AT_EACCESS) == 0; }

}  // namespace

int ReadFileStatus(const std::string& path, FileStatus& status) {
    struct statx answer {};
    int failure = Ask(path, 0, answer);
    if (failure == ENOENT || failure == ELOOP) failure = Ask(path, AT_SYMLINK_NOFOLLOW, answer);
    if (failure != 0) return failure;
    constexpr std::uint64_t bytesOfBlock = 512;
    status = {.kind = KindOf(answer.stx_mode),
              .size = answer.stx_size,
              .diskSize = answer.stx_blocks * bytesOfBlock,
              .accessed = MicrosecondsOf(answer.stx_atime),
              .modified = MicrosecondsOf(answer.stx_mtime),
              .created = {},
              .mount = {},
              .isCompressed = (answer.stx_attributes & STATX_ATTR_COMPRESSED) != 0,
              .isEncrypted = (answer.stx_attributes & STATX_ATTR_ENCRYPTED) != 0,
              .isReadable = MayBe(path, R_OK),
              .isWriteable = MayBe(path, W_OK),
              .isExecutable = MayBe(path, X_OK)};
    if ((answer.stx_mask & STATX_BTIME) != 0) status.created = MicrosecondsOf(answer.stx_btime);
    if ((answer.stx_mask & STATX_MNT_ID) != 0) status.mount = static_cast<int>(answer.stx_mnt_id);
    return 0;
}

bool IsAbsence(int failure) {
    return failure == ENOENT || failure == ENOTDIR || failure == ELOOP || failure == ENAMETOOLONG;
}

}  // namespace kv::facts
