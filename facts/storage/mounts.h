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
    int id = 0;
    int parentId = 0;    // the mount that holds its mount point
    std::string device;  // major:minor
    std::string root;    // the folder of the file system that is mounted
    std::string mountPoint;
    std::string fileSystem;  // its type, such as "ext4"
    std::string source;      // such as "/dev/sda1" or "server:/path"
    bool isReadOnly = false;
    bool keepsQuotas = false;  // a mount option says so
    std::string subvolume;     // of btrfs; empty for others
};

/// All mounts of such a file in its order, read by libmount. Malformed lines are left out; if the first one is, all
/// are. No mount is accessed. Throws std::system_error, or std::bad_alloc when memory runs out.
std::vector<Mount> ParseMountInfo(std::string_view text);

/// Whether a path lies in a folder, at any depth. Both are without a slash at the end; "/" is the root.
bool IsBelow(std::string_view path, std::string_view folder);

/// Whether a file system may not answer, because it lives on another computer or behind a program. True for types that
/// are not known.
bool MayHang(const Mount& mount);

/// Whether a file system lives on another computer, or on the host of this virtual machine.
bool IsOnNetwork(const Mount& mount);

/// The mounts that a user takes for disks, sorted by mount point. Much as df lists them, but without:
/// - the kernel's own file systems (proc, devtmpfs, ...) and anything below /proc and /sys;
/// - ramfs, which has no size, and the triggers of automounters;
/// - layers on other file systems, except the root;
/// - what another mount hides.
/// A device, or each subvolume on it, comes once: as the root, or where most of it is mounted.
std::vector<Mount> DisksAmong(const std::vector<Mount>& mounts);

/// What statvfs(3) tells, in bytes.
struct FileSystemSpace {
    std::uint64_t size = 0;
    std::uint64_t free = 0;       // the superuser's reserve included
    std::uint64_t available = 0;  // to ordinary users
    std::uint64_t files = 0;      // inodes
    std::uint64_t freeFiles = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t maxNameLength = 0;

    /// What is used plus what is available to ordinary users, without the superuser's reserve: the whole that df's
    /// percentage refers to, and the size of the disk everywhere here.
    std::uint64_t usableSize() const { return (size > free ? size - free : 0) + available; }
};

struct DiskSpace {
    Mount mount;
    std::optional<FileSystemSpace> space;  // absent: not asked for, refused, or without a limit
};

/// The disks of this computer, or those of them that are wanted. When the space is wanted, disks of size zero are left
/// out, except a tmpfs, which then has no limit. Mounts that may hang, or whose path leads through one that may, are
/// then asked on separate threads, all at once and for at most two seconds. A mount that does not answer keeps its
/// thread and is left out with a notice; the next time it is left out at once, until its thread is back. Absent when
/// the mounts cannot be read. Throws as ParseMountInfo does. root: of the mounts' file, in place of that of this
/// computer.
std::optional<std::vector<DiskSpace>> ReadDisks(bool wantsSpace, const std::function<void(std::string)>& notice,
                                                const std::function<bool(const Mount&)>& isWanted = {},
                                                const std::string& root = {});

}  // namespace kv::facts
