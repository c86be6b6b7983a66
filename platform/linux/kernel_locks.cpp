#include "platform/linux/kernel_locks.h"

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "platform/linux/linux.h"
#include "platform/linux/system_file.h"

namespace platform {

namespace {

/// A line of /proc/locks: "1: FLOCK  ADVISORY  WRITE 23436 fe:00:10952874 0 EOF".
struct KernelLock {
    std::uint32_t processId = 0;
    unsigned major = 0;
    unsigned minor = 0;
    ino_t inode = 0;
};

/// False for a lock of another kind, and for one that is waited for.
bool ParseLock(const std::string& line, KernelLock& lock) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string force;
    std::string access;
    char colon = 0;
    words >> number >> kind >> force >> access >> lock.processId;
    words >> std::hex >> lock.major >> colon >> lock.minor >> colon >> std::dec >> lock.inode;
    return words && kind == "FLOCK" && access == "WRITE";
}

bool IsOn(const KernelLock& lock, const struct stat& file) {
    if (lock.inode != file.st_ino || lock.major != major(file.st_dev)) return false;
    return lock.major == 0 || lock.minor == minor(file.st_dev);
}

/// Only there the kernel lists the locks of all processes. The number of that namespace is the same on each computer.
bool IsInFirstProcessNamespace() {
    std::error_code unreadable;
    return std::filesystem::read_symlink("/proc/self/ns/pid", unreadable) == "pid:[4026531836]";
}

}  // namespace

Error FindExclusiveLocks(const std::string& path, std::vector<std::uint32_t>& processes) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0)
        return errno == ENOENT || errno == ENOTDIR ? error::fileNotFound : ErrorFromErrno(errno);
    const std::optional<std::string> locks = ReadSystemFile("/proc/locks");
    if (!locks) return error::notSupported;
    std::istringstream lines(*locks);
    const std::size_t before = processes.size();
    for (std::string line; std::getline(lines, line);) {
        KernelLock lock;
        if (ParseLock(line, lock) && IsOn(lock, file)) processes.push_back(lock.processId);
    }
    if (processes.size() > before) return error::success;
    return IsInFirstProcessNamespace() ? error::fileNotFound : error::notSupported;
}

}  // namespace platform
