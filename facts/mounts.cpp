#include "facts/mounts.h"

#include <algorithm>
#include <map>
#include <span>
#include <tuple>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

using Names = std::span<const std::string_view>;

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

constexpr std::string_view noDisks[] = {
    "apparmorfs", "autofs",      "bdev",    "binder",    "binfmt_misc", "bpf",        "cgroup",
    "cgroup2",    "configfs",    "debugfs", "devpts",    "devtmpfs",    "efivarfs",   "fuse.gvfsd-fuse",
    "fuse.lxcfs", "fuse.portal", "fusectl", "hugetlbfs", "mqueue",      "nfsd",       "nsfs",
    "proc",       "pstore",      "ramfs",   "resctrl",   "rootfs",      "rpc_pipefs", "securityfs",
    "selinuxfs",  "smackfs",     "sysfs",   "tracefs",
};

bool IsAmong(Names names, std::string_view name) { return std::find(names.begin(), names.end(), name) != names.end(); }

/// What stands before the next blank, of which there is exactly one after each field: a field may be empty.
std::string_view TakeMountField(std::string_view& line) {
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return field;
}

bool IsOctal(char digit) { return digit >= '0' && digit <= '7'; }

/// Blanks and the like stand as a backslash and three octal digits.
std::string Unescaped(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const bool isEscape =
            text[0] == '\\' && text.size() >= 4 && IsOctal(text[1]) && IsOctal(text[2]) && IsOctal(text[3]);
        plain += isEscape ? static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + (text[3] - '0')) : text[0];
        text.remove_prefix(isEscape ? 4 : 1);
    }
    return plain;
}

bool IsReadOnlyBy(std::string_view options) { return options == "ro" || options.starts_with("ro,"); }

/// The value of an option such as "subvol=/@home"; empty where there is none.
std::string_view OptionIn(std::string_view options, std::string_view key) {
    while (!options.empty()) {
        const std::size_t end = std::min(options.find(','), options.size());
        if (options.starts_with(key)) return options.substr(key.size(), end - key.size());
        options.remove_prefix(std::min(end + 1, options.size()));
    }
    return {};
}

std::optional<Mount> ParseMount(std::string_view line) {
    const std::optional<std::uint64_t> id = NumberOf(TakeMountField(line));
    const std::optional<std::uint64_t> parentId = NumberOf(TakeMountField(line));
    if (!id || !parentId) return std::nullopt;
    Mount mount;
    mount.id = *id;
    mount.parentId = *parentId;
    mount.device = TakeMountField(line);
    mount.root = Unescaped(TakeMountField(line));
    mount.mountPoint = Unescaped(TakeMountField(line));
    const std::string_view options = TakeMountField(line);
    while (!line.empty() && TakeMountField(line) != "-") {
    }
    mount.fileSystem = Unescaped(TakeMountField(line));
    mount.source = Unescaped(TakeMountField(line));
    mount.isReadOnly = IsReadOnlyBy(options) || IsReadOnlyBy(line);
    if (mount.fileSystem == "btrfs") mount.subvolume = OptionIn(line, "subvol=");
    if (mount.fileSystem.empty() || !mount.mountPoint.starts_with('/')) return std::nullopt;
    return mount;
}

bool IsOnTopOf(const Mount& upper, const Mount& lower) {
    return upper.parentId == lower.id && upper.id != lower.id && upper.mountPoint == lower.mountPoint;
}

/// Whether a mount lies on a folder of the path by which its neighbour on the same parent is reached.
bool BlocksTheWayTo(const Mount& mount, const Mount& neighbour) {
    return mount.parentId == neighbour.parentId && IsBelow(neighbour.mountPoint, mount.mountPoint);
}

using MountsById = std::map<std::uint64_t, const Mount*>;

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
    if (IsAmong(noDisks, mount.fileSystem)) return false;
    if (mount.fileSystem == "overlay") return mount.mountPoint == "/";
    return !IsBelow(mount.mountPoint, "/proc") && !IsBelow(mount.mountPoint, "/sys");
}

/// Different folders of one server may share a device, and subvolumes always do; a user sees them as different disks.
std::string IdentityOf(const Mount& mount) {
    return mount.device + ' ' + (IsOnNetwork(mount) ? mount.source : mount.subvolume);
}

/// Of two places of one device, whether the left one is where a user looks for it: the root, else where more of the
/// file system is seen, else the shorter one.
bool IsMainPlace(const Mount& left, const Mount& right) {
    const auto rank = [](const Mount& mount) {
        return std::tuple(mount.mountPoint != "/", mount.root.size(), mount.mountPoint.size());
    };
    return rank(left) < rank(right);
}

}  // namespace

std::vector<Mount> ParseMountInfo(std::string_view text) {
    std::vector<Mount> mounts;
    for (std::string_view line; TakeLine(text, line);) {
        if (std::optional<Mount> mount = ParseMount(line)) mounts.push_back(std::move(*mount));
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
        const Mount*& best = mainPlaces[IdentityOf(mount)];
        if (best == nullptr || IsMainPlace(mount, *best)) best = &mount;
    }
    std::vector<Mount> disks;
    for (const auto& [identity, mount] : mainPlaces) disks.push_back(*mount);
    std::sort(disks.begin(), disks.end(),
              [](const Mount& left, const Mount& right) { return left.mountPoint < right.mountPoint; });
    return disks;
}

}  // namespace kv::facts
