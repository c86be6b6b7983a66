// The mounted file systems that a user takes for disks, and how full they are.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::wmi {

/// One line of /proc/self/mountinfo (proc(5)); escapes undone.
struct Mount {
    std::string device;  // major:minor
    std::string root;    // what of the file system is mounted
    std::string mountPoint;
    std::string fileSystem;  // its type, such as "ext4"
    std::string source;      // such as "/dev/sda1" or "server:/path"
    bool isReadOnly = false;
};

/// Lines that are none of this form are left out.
std::vector<Mount> ParseMountInfo(std::string_view text);

/// Whether a file system lives on another computer, or behind a program, so that it may not answer.
bool MayHang(const Mount& mount);

/// Those that a user takes for disks, as df lists them: no file systems of the kernel's own (proc, sysfs, cgroup, ...),
/// nothing of size zero by its nature, no automounter's triggers, a device once, at its shortest mount point, and of
/// two mounts on one point the upper one.
std::vector<Mount> DisksAmong(std::vector<Mount> mounts);

/// statvfs(3), in bytes.
struct FileSystemSpace {
    std::uint64_t size = 0;
    std::uint64_t free = 0;       // the superuser's reserve included
    std::uint64_t available = 0;  // to ordinary users
    std::uint64_t files = 0;      // inodes
    std::uint64_t freeFiles = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t maxNameLength = 0;
};

struct DiskSpace {
    Mount mount;
    std::optional<FileSystemSpace> space;  // none: not asked for, or no answer
};

/// The disks of this computer. With the space wanted, mounts that may hang are asked on threads of their own, all at
/// once and for two seconds at most; one that does not answer keeps its thread, and is left out with a notice, at once
/// the next time, until the thread is back.
std::vector<DiskSpace> ReadDisks(bool wantsSpace, const std::function<void(std::string)>& notice);

}  // namespace platform::wmi
