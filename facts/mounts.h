// The mounted file systems that a user takes for disks, and how full they are.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// One line of /proc/self/mountinfo (proc(5)); escapes undone.
struct Mount {
    std::uint64_t id = 0;
    std::uint64_t parentId = 0;  // the mount on which it lies
    std::string device;          // major:minor
    std::string root;            // what of the file system is mounted
    std::string mountPoint;
    std::string fileSystem;  // its type, such as "ext4"
    std::string source;      // such as "/dev/sda1" or "server:/path"
    bool isReadOnly = false;
    std::string subvolume;  // of btrfs; empty for others
};

/// Lines that are none of this form are left out.
std::vector<Mount> ParseMountInfo(std::string_view text);

/// Whether a path lies in a folder or deeper; both without a slash at the end.
bool IsBelow(std::string_view path, std::string_view folder);

/// Whether a file system lives on another computer, or behind a program, so that it may not answer.
bool MayHang(const Mount& mount);

/// Whether a file system lives on another computer, or on the one that this computer is a guest of.
bool IsOnNetwork(const Mount& mount);

/// Those that a user takes for disks, sorted by mount point: much as df lists them, but no file systems of the kernel's
/// own (proc, devtmpfs, ...) nor anything below /proc and /sys, no ramfs, which has no size, no automounter's triggers,
/// no layers on other file systems except a root; a device, or each subvolume on it, once, at the root or where most of
/// it is mounted, and nothing that a later mount hides.
std::vector<Mount> DisksAmong(const std::vector<Mount>& mounts);

/// statvfs(3), in bytes.
struct FileSystemSpace {
    std::uint64_t size = 0;
    std::uint64_t free = 0;       // the superuser's reserve included
    std::uint64_t available = 0;  // to ordinary users
    std::uint64_t files = 0;      // inodes
    std::uint64_t freeFiles = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t maxNameLength = 0;

    /// What is used and what is available to ordinary users, without the superuser's reserve: the whole of which df
    /// gives the percentage.
    std::uint64_t usableSize() const { return (size > free ? size - free : 0) + available; }
};

struct DiskSpace {
    Mount mount;
    std::optional<FileSystemSpace> space;  // none: not asked for, or refused
};

/// The disks of this computer, or the wanted ones of them. With the space wanted, those of size zero are left out, and
/// mounts that may hang, or that are reached through one that may, are asked on threads of their own, all at once and
/// for two seconds at most; one that does not answer keeps its thread, and is left out with a notice, at once the next
/// time, until the thread is back.
std::vector<DiskSpace> ReadDisks(bool wantsSpace, const std::function<void(std::string)>& notice,
                                 const std::function<bool(const Mount&)>& isWanted = {});

}  // namespace kv::facts
