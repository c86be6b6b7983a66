// Which mounts are disks.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tuple>

#include "facts/storage/mounts.h"

namespace kv::test {
namespace {

using namespace facts;

TEST(Mounts, AreTheDisksThatAUserExpects) {
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"the kernel's own file systems and triggers are not disks",
         "21 20 0:5 / /proc rw - proc proc rw\n22 20 0:6 / /sys/fs/cgroup rw - tmpfs tmpfs rw\n"
         "23 20 0:7 / /n rw - autofs a rw\n25 20 0:9 / /r rw - ramfs a rw\n24 20 0:8 / /run rw s:3 m:1 - tmpfs a rw\n",
         " 0:8@/run"},
        {"a point with a blank in its name", "21 20 0:5 / /a\\040b rw - tmpfs  rw\n", " 0:5@/a b"},
        {"a device once, whole and at its shortest mount point",
         "21 20 8:2 /sub /x rw - xfs /dev/sdb rw\n22 20 8:2 / /a/data rw - xfs /dev/sdb rw\n"
         "23 20 8:2 / /srv rw - xfs /dev/sdb rw\n24 20 8:2 / /mnt/top rw - xfs /dev/sdb rw\n",
         " 8:2@/srv"},
        {"the root wins over a mount of the whole device", "21 20 8:1 / /top rw - btrfs /dev/sda rw\n", ""},
        {"a subvolume is a disk, its folder is not",
         "21 20 8:1 /@h /home rw - btrfs /dev/sda rw,subvolid=1,subvol=/@h\n22 20 8:1 /@h/w /w rw - btrfs /dev/sda "
         "rw,subvol=/@h\n",
         " 8:1@/home"},
        {"two folders of one server are two disks",
         "21 20 0:5 / /a rw - nfs4 nas:/a rw\n22 20 0:5 / /b rw - nfs4 nas:/b rw\n", " 0:5@/a 0:5@/b"},
        {"a mount hides the mounts below it",
         "21 20 8:2 / /m/a rw - ext4 /dev/sdb rw\n22 21 8:3 / /m/a/b rw - ext4 /dev/sdc rw\n"
         "23 20 8:4 / /m rw - ext4 /dev/sdd rw\n24 20 8:5 / /my rw - ext4 /dev/sde rw\n",
         " 8:4@/m 8:5@/my"},
        {"lines that are not mounts are skipped",
         "24 20 0:8 / /run rw - tmpfs a rw\nx\n\n21 20 0:5 / /a rw\n22 20 0:6 / b rw - xfs /dev/sdb rw\n", " 0:8@/run"},
        {"overlays are not disks", "21 20 0:5 / /var/c1 rw - overlay overlay rw\n", ""},
    };
    // The root comes in addition, in what is mounted and in the disks.
    for (const auto& [title, mountInfo, others] : rows) {
        std::string disks;
        for (const Mount& disk : DisksAmong(ParseMountInfo(mountInfo + "20 1 8:1 /@ / rw - btrfs /dev/sda rw"))) {
            disks += fmt::format(" {}@{}", disk.device, disk.mountPoint);
        }
        EXPECT_EQ(disks, " 8:1@/" + others) << title;
    }
}

TEST(Mounts, KeepQuotasByTheirOptions) {
    const std::tuple<const char*, bool> rows[] = {
        {"ext4 /dev/sda rw,usrjquota=aquota.user,jqfmt=vfsv0", true},
        {"ext4 /dev/sda rw,grpquota", true},
        {"xfs /dev/sda rw,attr2,noquota", false},
        {"xfs /dev/sda rw,uqnoenforce", true},
        {"ext4 /dev/sda rw,errors=remount-ro", false},
    };
    for (const auto& [mounted, keepsQuotas] : rows) {
        const std::vector<Mount> mounts = ParseMountInfo(std::string("20 1 8:1 / / rw - ") + mounted + "\n");
        ASSERT_EQ(mounts.size(), 1U) << mounted;
        EXPECT_EQ(mounts[0].keepsQuotas, keepsQuotas) << mounted;
    }
}

}  // namespace
}  // namespace kv::test
