// Which mounts are disks, what kind of drives they are, their space, one of which does not answer, and swaps.
#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <memory>
#include <semaphore>
#include <tuple>

#include "facts/storage/mount_space.h"
#include "facts/storage/mounts.h"
#include "facts/storage/swaps.h"
#include "facts/storage/volume_facts.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::ElementsAre;

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
        EXPECT_EQ(mounts.at(0).keepsQuotas, keepsQuotas) << mounted;
    }
}

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

TEST(MountSpace, WaitsForASilentMountOnlyOnce) {
    std::vector<Mount> mounts(2);
    mounts[0].mountPoint = "/dead";
    mounts[1].mountPoint = "/alive";
    const auto released = std::make_shared<std::counting_semaphore<>>(0);
    const auto asked = std::make_shared<std::atomic<int>>(0);
    const SpaceQuestion question = [=](const std::string& mountPoint) {
        if (mountPoint == "/dead") {
            ++*asked;
            released->acquire();
        }
        return SpaceAnswer();
    };
    std::vector<std::string> notices;
    const auto ask = [&](std::chrono::milliseconds bound) {
        notices.clear();
        return AskMounts(mounts, question, bound, [&](const std::string& text) { notices.push_back(text); });
    };
    EXPECT_FALSE(ask(100ms)[0]);
    EXPECT_THAT(notices, testing::ElementsAre(testing::HasSubstr("/dead")));
    const auto start = steady_clock::now();
    const auto again = ask(30s);
    EXPECT_LT(steady_clock::now() - start, 30s) << "the silent mount is skipped";
    EXPECT_TRUE(!again[0] && again[1] && notices.size() == 1);
    EXPECT_EQ(*asked, 1) << "at most one thread is stuck";
    mounts[0].device = "0:99";
    std::vector<std::optional<SpaceAnswer>> answers;
    const auto end = steady_clock::now() + 30s;
    do EXPECT_FALSE(ask(50ms)[0].has_value());
    while (*asked < 2 && steady_clock::now() < end);
    EXPECT_EQ(*asked, 2) << "a new device is another mount";
    released->release(100);
    do answers = ask(10s);
    while (!answers[0] && steady_clock::now() < end);
    EXPECT_TRUE(answers[0]) << "it answers again";
    const int before = *asked;
    ask(10s);
    EXPECT_EQ(*asked, before + 1) << "each time";
    EXPECT_TRUE(notices.empty());
}

TEST(Swaps, AreReadFromTheKernelsList) {
    std::vector<std::string> seen;
    for (const Swap& swap : ParseSwaps("Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                                       "/dev/dm-1                               partition\t8388604\t\t1024\t\t-2\n"
                                       "/my\\040swap\\134file                   file\t\t2097148\t0\t\t5\n"
                                       "/gone\\040(deleted)                     file\t\t1020\t20\t\t-3\n"
                                       "/dev/cut partition 12\n")) {
        seen.push_back(fmt::format("{}|{}|{}|{}", swap.path, swap.isFile, swap.size, swap.used));
    }
    EXPECT_THAT(seen,
                ElementsAre("/dev/dm-1|false|8388604|1024", "/my swap\\file|true|2097148|0", "/gone|true|1020|20"));
}

TEST(Fstab, IsReadAsPeopleWriteIt) {
    std::vector<std::string> seen;
    for (const FstabEntry& entry :
         ParseFstab("# <file system> <mount point> <type>\n\nUUID=1-2 / ext4 errors=remount-ro 0 1\n"
                    "\t/dev/sdb1\t/my\\040data xfs  rw,noauto,nofail\n"
                    "broken line\n#/dev/sdc1 /old ext3\n/dev/sdd1 /slashes// ext4\n/swapfile none swap")) {
        seen.push_back(fmt::format("{}|{}|{}|{}", entry.source, entry.mountPoint, entry.fileSystem, entry.isAutomatic));
    }
    EXPECT_THAT(seen, ElementsAre("UUID=1-2|/|ext4|true", "/dev/sdb1|/my data|xfs|false",
                                  "/dev/sdd1|/slashes|ext4|true", "/swapfile|none|swap|true"));
}

}  // namespace
}  // namespace kv::test
