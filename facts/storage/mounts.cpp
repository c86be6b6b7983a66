#include "facts/storage/mounts.h"

#include <algorithm>
#include <fmt/format.h>
#include <libmount.h>
#include <map>
#include <memory>
#include <new>
#include <span>
#include <sys/sysmacros.h>
#include <system_error>
#include <tuple>

#include "facts/text_file.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

using Names = std::span<const std::string_view>;

// These lists are our own: libmount knows eleven network file systems, and those of the kernel, but not which ones may
// hang, or which ones users take for disks.

constexpr std::string_view answeringFileSystems[] = {
    "apfs",  "bcachefs", "btrfs",   "cramfs",   "devtmpfs", "erofs", "exfat", "ext2",   "ext3", "ext4",  "f2fs",
    "hfs",   "hfsplus",  "iso9660", "jffs2",    "jfs",      "minix", "msdos", "nilfs2", "ntfs", "ntfs3", "overlay",
    "ramfs", "reiserfs", "romfs",   "squashfs", "tmpfs",    "ubifs", "udf",   "ufs",    "vfat", "xfs",   "zfs",
};

constexpr std::string_view networkFileSystems[] = {
    "9p",          "acfs",         "afs",
    "beegfs",      "ceph",         "cifs",
    "coda",        "fuse.ceph",    "fuse.curlftpfs",
    "fuse.davfs",  "fuse.gcsfuse", "fuse.glusterfs",
    "fuse.goofys", "fuse.juicefs", "fuse.mfs",
    "fuse.rclone", "fuse.s3fs",    "fuse.sshfs",
    "gfs2",        "gpfs",         "lustre",
    "ncpfs",       "nfs",          "nfs4",
    "ocfs2",       "orangefs",     "prl_fs",
    "smb3",        "smbfs",        "vboxsf",
    "virtiofs",    "vmhgfs",       "fuse.vmhgfs-fuse",
};

constexpr std::string_view fileSystemsWithoutDisk[] = {
    "apparmorfs", "autofs",      "bdev",    "binder",    "binfmt_misc", "bpf",        "cgroup",
    "cgroup2",    "configfs",    "debugfs", "devpts",    "devtmpfs",    "efivarfs",   "fuse.gvfsd-fuse",
    "fuse.lxcfs", "fuse.portal", "fusectl", "hugetlbfs", "mqueue",      "nfsd",       "nsfs",
    "proc",       "pstore",      "ramfs",   "resctrl",   "rootfs",      "rpc_pipefs", "securityfs",
    "selinuxfs",  "smackfs",     "sysfs",   "tracefs",
};

bool IsAmong(Names names, std::string_view name) { return std::find(names.begin(), names.end(), name) != names.end(); }

/// libmount gives null for a field that is absent.
std::string Field(const char* text) { return text != nullptr ? text : ""; }

bool IsReadOnlyBy(const char* options) {
    return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
}

bool KeepsQuotasBy(const char* options) {
    constexpr const char* switches[] = {"usrquota",    "grpquota",    "prjquota",    "usrjquota", "grpjquota",
                                        "uqnoenforce", "gqnoenforce", "pqnoenforce", "quota"};
    const auto isGiven = [&](const char* option) {
        return mnt_optstr_get_option(options, option, nullptr, nullptr) == 0;
    };
    return options != nullptr && std::any_of(std::begin(switches), std::end(switches), isGiven);
}

/// The value of an option such as "subvol=/@home"; empty when it is absent.
std::string OptionValue(const char* options, const char* name) {
    char* value = nullptr;
    std::size_t size = 0;
    const bool isGiven = options != nullptr && mnt_optstr_get_option(options, name, &value, &size) == 0;
    return isGiven && value != nullptr ? std::string(value, size) : std::string();
}

Mount MountFromEntry(libmnt_fs* entry) {
    const dev_t device = mnt_fs_get_devno(entry);
    Mount mount;
    mount.id = mnt_fs_get_id(entry);
    mount.parentId = mnt_fs_get_parent_id(entry);
    mount.device = fmt::format("{}:{}", major(device), minor(device));
    mount.root = Field(mnt_fs_get_root(entry));
    mount.mountPoint = Field(mnt_fs_get_target(entry));
    mount.fileSystem = Field(mnt_fs_get_fstype(entry));
    mount.source = Field(mnt_fs_get_source(entry));
    mount.isReadOnly = IsReadOnlyBy(mnt_fs_get_vfs_options(entry)) || IsReadOnlyBy(mnt_fs_get_fs_options(entry));
    mount.keepsQuotas = KeepsQuotasBy(mnt_fs_get_vfs_options(entry)) || KeepsQuotasBy(mnt_fs_get_fs_options(entry));
    if (mount.fileSystem == "btrfs") mount.subvolume = OptionValue(mnt_fs_get_fs_options(entry), "subvol");
    return mount;
}

bool IsOnTopOf(const Mount& upper, const Mount& lower) {
    return upper.parentId == lower.id && upper.id != lower.id && upper.mountPoint == lower.mountPoint;
}

/// Whether a mount covers a folder on the path to its neighbour, a mount on the same parent.
bool BlocksTheWayTo(const Mount& mount, const Mount& neighbour) {
    return mount.parentId == neighbour.parentId && IsBelow(neighbour.mountPoint, mount.mountPoint);
}

using MountsById = std::map<int, const Mount*>;

bool IsHidden(const Mount& mount, const std::vector<Mount>& mounts, const MountsById& byId) {
    for (const Mount& other : mounts) {
        if (IsOnTopOf(other, mount)) return true;
    }
    const Mount* at = &mount;
    for (std::size_t step = 0; step < mounts.size(); ++step) {  // a mount may be its own parent
        for (const Mount& other : mounts) {
            if (BlocksTheWayTo(other, *at)) return true;
        }
        const auto parent = byId.find(at->parentId);
        if (parent == byId.end() || parent->second == at) break;
        at = parent->second;
    }
    return false;
}

bool IsDiskByItself(const Mount& mount) {
    if (IsAmong(fileSystemsWithoutDisk, mount.fileSystem)) return false;
    if (mount.fileSystem == "overlay") return mount.mountPoint == "/";
    return !IsBelow(mount.mountPoint, "/proc") && !IsBelow(mount.mountPoint, "/sys");
}

/// Folders of one server may share a device number, and subvolumes always do. A user sees them as different disks.
std::string DiskIdentity(const Mount& mount) {
    return mount.device + ' ' + (IsOnNetwork(mount) ? mount.source : mount.subvolume);
}

/// Of two places where a device is mounted, whether a user looks for it at the left one: at the root, else where more
/// of the file system is seen, else at the shorter path.
bool IsMainPlace(const Mount& left, const Mount& right) {
    const auto rank = [](const Mount& mount) {
        return std::tuple(mount.mountPoint != "/", mount.root.size(), mount.mountPoint.size());
    };
    return rank(left) < rank(right);
}

}  // namespace

std::vector<Mount> ParseMountInfo(std::string_view text) {
    // Without a cache libmount only parses, and finds out what the kernel's /dev/root stands for. With one it would
    // resolve paths, and wait for mounts that do not answer.
    const std::unique_ptr<libmnt_table, platform::ReleasedBy<mnt_unref_table>> table(mnt_new_table());
    const std::unique_ptr<libmnt_iter, platform::ReleasedBy<mnt_free_iter>> entries(mnt_new_iter(MNT_ITER_FORWARD));
    if (!table || !entries) throw std::bad_alloc();
    const File file = OpenText(text);
    const int failure = mnt_table_parse_stream(table.get(), file.get(), "");
    if (failure != 0) throw std::system_error(-failure, std::generic_category(), "mountinfo");
    std::vector<Mount> mounts;
    for (libmnt_fs* entry = nullptr; mnt_table_next_fs(table.get(), entries.get(), &entry) == 0;) {
        Mount mount = MountFromEntry(entry);
        if (mount.mountPoint.starts_with('/')) mounts.push_back(std::move(mount));
    }
    return mounts;
}

bool IsBelow(std::string_view path, std::string_view folder) {
    if (folder == "/") return path != "/";
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

bool MayHang(const Mount& mount) { return !IsAmong(answeringFileSystems, mount.fileSystem); }

bool IsOnNetwork(const Mount& mount) {
    if (IsAmong(networkFileSystems, mount.fileSystem)) return true;
    const bool isNamedSo = mount.source.starts_with("//") || mount.source.find(':') != mount.source.npos;
    return mount.fileSystem.starts_with("fuse") && isNamedSo && !mount.source.starts_with("/dev/");
}

std::vector<Mount> DisksAmong(const std::vector<Mount>& mounts) {
    MountsById byId;
    for (const Mount& mount : mounts) byId.emplace(mount.id, &mount);
    std::map<std::string, const Mount*> mainPlaces;
    for (const Mount& mount : mounts) {
        if (!IsDiskByItself(mount) || IsHidden(mount, mounts, byId)) continue;
        const Mount*& best = mainPlaces[DiskIdentity(mount)];
        if (best == nullptr || IsMainPlace(mount, *best)) best = &mount;
    }
    std::vector<Mount> disks;
    for (const auto& [identity, mount] : mainPlaces) disks.push_back(*mount);
    std::sort(disks.begin(), disks.end(),
              [](const Mount& left, const Mount& right) { return left.mountPoint < right.mountPoint; });
    return disks;
}

}  // namespace kv::facts
