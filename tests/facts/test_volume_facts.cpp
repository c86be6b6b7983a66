// What kind of drive a mount is, and whether it may hang.
#include <gtest/gtest.h>
#include <tuple>

#include "facts/storage/mount_space.h"
#include "facts/storage/volume_facts.h"

namespace kv::test {
namespace {

using namespace facts;

TEST(Volumes, HaveKindsOfDrives) {
    const std::tuple<const char*, const char*, bool, DriveType> rows[] = {
        {"ext4", "/dev/none", false, DriveType::fixed},
        {"nfs4", "nas:/x", true, DriveType::network},
        {"fuse.sshfs", "me@nas:", true, DriveType::network},
        {"fuseblk", "/dev/disk/by-path/usb-0:1", true, DriveType::fixed},
        {"unheard-of", "x", true, DriveType::fixed},
        {"tmpfs", "tmpfs", false, DriveType::memory},
        {"squashfs", "/dev/none", false, DriveType::compactDisc},
    };
    for (const auto& [fileSystem, source, mayHang, kind] : rows) {
        Mount mount;
        mount.fileSystem = fileSystem;
        mount.source = source;
        EXPECT_EQ(MayHang(mount), mayHang) << fileSystem;
        EXPECT_EQ(DriveTypeOf(mount, ""), kind) << fileSystem;
    }
}

TEST(Volumes, AreCountedOnce) {
    const struct {
        const char *device, *mountPoint, *fileSystem, *source, *blockDevice;
        std::uint64_t size;
        bool isOwn;
    } rows[] = {
        {"0:50", "/", "overlay", "overlay", "", 100, false},  // whose files are on the next one
        {"8:1", "/etc/hosts", "ext4", "/dev/sda1", "sda1", 100, true},
        {"0:40", "/a", "btrfs", "/dev/sdb", "sdb", 200, true},
        {"0:40", "/b", "btrfs", "/dev/sdb", "sdb", 200, false},
        {"7:0", "/image", "ext4", "/dev/loop0", "loop0", 300, false},
        {"7:1", "/snap", "squashfs", "/dev/loop1", "loop1", 300, false},
        {"0:41", "/net", "nfs4", "nas:/x", "", 400, false},
        {"0:42", "/run", "tmpfs", "tmpfs", "", 500, false},
        {"0:43", "/view", "fuse.mergerfs", "a:b", "", 600, false},
        {"8:17", "/ntfs", "fuseblk", "/dev/sdb1", "sdb1", 700, true},
        {"0:44", "/pool", "zfs", "pool", "", 800, true},
        {"0:45", "/pool/home", "zfs", "pool/home", "", 800, false},
    };
    std::vector<DiskSpace> disks;
    std::vector<std::string> blockDevices;
    for (const auto& row : rows) {
        DiskSpace& disk = disks.emplace_back();
        disk.mount.device = row.device;
        disk.mount.mountPoint = row.mountPoint;
        disk.mount.fileSystem = row.fileSystem;
        disk.mount.source = row.source;
        disk.space.emplace().size = row.size;
        blockDevices.emplace_back(row.blockDevice);
    }
    const std::vector<bool> own = HaveOwnSpace(disks, blockDevices);
    for (std::size_t at = 0; at < disks.size(); ++at) EXPECT_EQ(own[at], rows[at].isOwn) << rows[at].mountPoint;
    disks[0].space->size = 101;
    EXPECT_TRUE(HaveOwnSpace(disks, blockDevices)[0]) << "the root's files are elsewhere";
}

}  // namespace
}  // namespace kv::test
