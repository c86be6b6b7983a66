// Disks, partitions, mounts and swaps: trees of files that stand for a machine's, and what each test mounts in
// namespaces of its own, among them a mount that does not answer.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "facts/storage/mount_space.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/nobody.h"
#include "wql/classes/storage/storage_sources.h"

namespace kv::test {
namespace {

using namespace wql;
namespace fs = std::filesystem;
using namespace facts;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using WmiStorage = WmiTest;

class WmiStorageTrees : public FrozenFiles {
  protected:
    static Gathered Drives(const char* names) { return Over<GatherDiskDrives>(u"Win32_DiskDrive", names); }
    static Gathered Partitions(const char* names, const char* where = "") {
        return Over<GatherDiskPartitions>(u"Win32_DiskPartition", names, where);
    }
    static Gathered Mounts(const char* names, const std::string& where = "") {
        return Over<GatherLogicalDisks>(u"Win32_LogicalDisk", names, where);
    }
    static Gathered Links(const char* names) {
        return Over<GatherLogicalDisksToPartitions>(u"Win32_LogicalDiskToPartition", names);
    }

    /// A device below /sys, with the links to it: "sda" at "ata1/.../0:0:0:0", "sda/sda1" for a partition.
    static void AddDevice(const std::string& place, const std::string& name, const std::string& number,
                          const std::vector<std::pair<std::string, const char*>>& files) {
        const fs::path device = fs::path(root) / "sys/devices" / place;
        const fs::path block = device / "block" / name;
        for (const auto& [file, text] : files) Write(block / file, text);
        Write(block / "dev", number + "\n");
        fs::create_directories(root + "/sys/block");
        fs::create_directories(root + "/sys/dev/block");
        fs::create_symlink(block, root + "/sys/dev/block/" + number);
        if (name.find('/') != name.npos) return;
        fs::create_symlink(device, block / "device");
        fs::create_symlink(block, root + "/sys/block/" + name);
    }

    static void AddTwoDisks() {
        const std::string first = "pci0/nvme/nvme0", second = "pci0/ata1/host2/target2:0:1/2:0:1:3";
        AddDevice(first, "nvme0n1", "259:0", {{"size", "2000"}, {"queue/logical_block_size", "512"}});
        Write(root + "/sys/devices/" + first + "/state", "dead");
        Write(root + "/sys/devices/" + second + "/state", "running");
        AddDevice(second, "sda", "8:0", {{"size", "4000"}, {"queue/logical_block_size", "4096"}, {"removable", "1"}});
        AddDevice(second, "sda/sda1", "8:1", {{"partition", "1"}, {"start", "64"}, {"size", "800"}, {"ro", "1"}});
        AddDevice(second, "sda/sda2", "8:2", {{"partition", "2"}, {"start", "1000"}, {"size", "2"}, {"ro", "0"}});
        AddDevice(second, "sda/sda10", "8:10", {{"partition", "10"}, {"start", "1002"}, {"size", "80"}});
        AddDevice(second, "sda/sda5", "8:5", {{"partition", "5"}, {"start", "2000"}, {"size", "8"}});
        AddDevice("pci0/nvme/nvme0", "nvme0n1/nvme0n1p1", "259:1",
                  {{"partition", "1"}, {"start", "8"}, {"size", "16"}, {"ro", "0"}});
        AddDevice("pci0/nvme/nvme0", "nvme0n1/nvme0n1p7", "259:7",
                  {{"partition", "7"}, {"start", "24"}, {"size", "8"}, {"ro", "0"}});
        AddDevice("virtual", "loop0", "7:0", {{"size", "8"}, {"loop0p1/partition", "1"}});
        fs::remove(root + "/sys/devices/virtual/block/loop0/device");
        const std::string udev = root + "/run/udev/data/b";
        Write(udev + "8:0", "I:1\nE:ID_PART_TABLE_UUID=8a1b2c3d\nE:ID_PART_TABLE_TYPE=dos\n");
        Write(udev + "8:1",
              "E:ID_PART_ENTRY_SCHEME=dos\nE:ID_PART_ENTRY_TYPE=0x7\nE:ID_PART_ENTRY_FLAGS=0x80\n"
              "E:ID_PART_ENTRY_NUMBER=1\n");
        Write(udev + "8:2", "E:ID_PART_ENTRY_SCHEME=dos\nE:ID_PART_ENTRY_TYPE=0xf\nE:ID_PART_ENTRY_NUMBER=2\n");
        Write(udev + "8:5", "E:ID_PART_ENTRY_SCHEME=dos\nE:ID_PART_ENTRY_TYPE=0xcc\nE:ID_PART_ENTRY_NUMBER=5\n");
        Write(udev + "259:0", "E:ID_PART_TABLE_UUID=8a1b2c3d-0000\nE:ID_PART_TABLE_TYPE=gpt\n");
        Write(udev + "259:1",
              "E:ID_PART_ENTRY_SCHEME=gpt\n"
              "E:ID_PART_ENTRY_TYPE=c12a7328-f81f-11d2-ba4b-00a0c93ec93b\n");
        Write(udev + "259:7", "E:ID_PART_ENTRY_SCHEME=gpt\nE:ID_PART_ENTRY_TYPE=0\nE:ID_PART_ENTRY_FLAGS=0x2\n");
    }

    /// A device that is made of others: a link to each in its folder "slaves". Without them it is a part of such one.
    static void AddVolume(const std::string& name, const std::string& number, const std::vector<std::string>& parts) {
        AddDevice("virtual", name, number, {{parts.empty() ? "partition" : "size", "1"}});
        const fs::path block = root + "/sys/devices/virtual/block/" + name;
        fs::create_directories(root + "/sys/class/block");
        fs::create_symlink(block, root + "/sys/class/block/" + block.filename().string());
        if (parts.empty()) return;
        fs::remove(block / "device");
        fs::create_directory(block / "slaves");
        for (const std::string& part : parts) fs::create_symlink("../../" + part, block / "slaves" / part);
    }

    /// Two partitions (dm-0), an encrypted RAID (dm-1 on md0) with broken links that lead in a circle, and its part.
    static void AddVolumes() {
        AddVolume("dm-0", "253:0", {"sda2", "nvme0n1p1"});
        AddVolume("dm-1", "253:1", {"md0"});
        AddVolume("md0", "9:0", {"sda5", "sda10", "dm-1"});
        AddVolume("md0/md0p1", "259:9", {});
    }
};

TEST_F(WmiStorageTrees, HaveDisksAndPartitions) {
    AddTwoDisks();
    EXPECT_EQ(
        LinesOf(Drives(
            "DeviceID Index Partitions Signature Status ConfigManagerErrorCode ConfigManagerUserConfig Capabilities")),
        "/dev/sda|0|4|-1977930691|OK|0|false|[3, 4, 7]|\n/dev/nvme0n1|1|2|NULL|Error|24|false|[3, 4]|\n");
    EXPECT_EQ(LinesOf(Partitions("DeviceID Name Caption DiskIndex Index Type Bootable PrimaryPartition")),
              "Disk #0, Partition #0|Disk #0, Partition #0|/dev/sda1|0|0|Installable File System|true|true|\n"
              "Disk #0, Partition #1|Disk #0, Partition #1|/dev/sda2|0|1|Extended w/Extended Int 13|false|false|\n"
              "Disk #0, Partition #2|Disk #0, Partition #2|/dev/sda5|0|2|Unknown|false|false|\n"
              "Disk #0, Partition #3|Disk #0, Partition #3|/dev/sda10|0|3|Unknown|NULL|NULL|\n"
              "Disk #1, Partition #0|Disk #1, Partition #0|/dev/nvme0n1p1|1|0|GPT: System|true|true|\n"
              "Disk #1, Partition #1|Disk #1, Partition #1|/dev/nvme0n1p7|1|1|GPT: Unknown|false|true|\n");
    EXPECT_EQ(LinesOf(Partitions("StartingOffset Size BlockSize NumberOfBlocks Access Status PNPDeviceID",
                                 "WHERE Index = 0")),
              "32768|409600|4096|100|1|OK|pci0/ata1/host2/target2:0:1/2:0:1:3/block/sda/sda1|\n"
              "4096|8192|512|16|3|Error|pci0/nvme/nvme0/block/nvme0n1/nvme0n1p1|\n");
}

TEST_F(WmiStorageTrees, ReferToObjectsByTheirPaths) {
    AddTwoDisks();
    AddVolumes();
    Write(root + "/dev/sda5", "");
    Write(root + "/proc/self/mountinfo",
          "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n21 20 8:1 /x /x rw - ext4 /dev/sda1 rw\n"
          "22 20 7:0 / /image ro - ext4 /dev/loop0 ro\n23 20 0:40 /a /da\\134ta rw - btrfs /dev/sda5 rw,subvol=/a\n"
          "24 20 0:41 / /net rw - nfs4 nas:/x rw\n25 20 253:0 / /twofold rw - xfs /dev/mapper/v-two rw\n"
          "26 20 253:1 / /locked rw - ext4 /dev/mapper/locked rw\n27 20 259:9 / /part rw - ext4 /dev/md0p1 rw\n");
    const std::vector<std::string> disks = Drives("__PATH").objects;
    const std::vector<std::string> partitions = Partitions("__PATH").objects;
    ASSERT_EQ(partitions.size(), 6U);
    std::vector<std::string> pairs;
    for (std::size_t at = 0; at < partitions.size(); ++at) pairs.push_back(disks.at(at < 4 ? 0 : 1) + partitions[at]);
    EXPECT_EQ(Over<GatherDrivesToPartitions>(u"Win32_DiskDriveToDiskPartition", "Antecedent Dependent").objects, pairs);
    const auto onMount = [](const std::string& partition, const std::string& mountPoint) {
        return partition + LinesOf(Mounts("__PATH", "WHERE DeviceID = '" + mountPoint + "'"));
    };
    const std::string links = onMount(partitions[0], "/") + onMount(partitions[2], "/da\\\\ta") +
                              onMount(partitions[2], "/locked") + onMount(partitions[3], "/locked") +
                              onMount(partitions[2], "/part") + onMount(partitions[3], "/part") +
                              onMount(partitions[1], "/twofold") + onMount(partitions[4], "/twofold");
    EXPECT_EQ(LinesOf(Links("Antecedent Dependent")), links);
    EXPECT_THAT(LinesOf(Links("StartingAddress EndingAddress")),
                testing::StartsWith("32768|442367|\n1024000|1028095|\n"));
}

TEST_F(WmiStorageTrees, HaveMountsOfEachKind) {
    Write(root + "/proc/self/mountinfo",
          "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n21 20 8:2 / /ro ro - ext4 /dev/sda2 ro,usrquota\n"
          "22 20 0:41 / /net rw - nfs4 nas:/x rw\n23 20 0:42 / /run rw - tmpfs tmpfs rw\n");
    AddTwoDisks();
    WriteAll(root, "sys/fs/ext4/sda1/errors_count=0\nsys/fs/ext4/sda2/errors_count=2\n");
    EXPECT_EQ(LinesOf(Mounts("DeviceID FileSystem Access DriveType SupportsDiskQuotas QuotasDisabled "
                             "QuotasIncomplete QuotasRebuilding VolumeDirty ConfigManagerErrorCode")),
              "/|ext4|3|3|true|true|false|false|false|0|\n/net|nfs4|3|4|false|true|false|false|false|0|\n"
              "/ro|ext4|1|3|true|false|false|false|true|0|\n/run|tmpfs|3|6|true|true|false|false|false|0|\n");
    EXPECT_EQ(
        LinesOf(Over<GatherLogicalDisks>(
            u"Win32_Volume", "DeviceID DriveType Automount PageFilePresent QuotasEnabled DirtyBitSet BootVolume")),
        "/|3|true|false|false|false|true|\n/net|4|false|false|false|false|false|\n"
        "/ro|3|false|false|true|true|false|\n/run|6|false|false|false|false|false|\n");
}

TEST_F(WmiStorageTrees, HavePlacesAndPathsByTheKernelsNames) {
    for (const char* name : {"sdaa", "sdb", "cciss!c0d0"})
        AddDevice("pci0/" + std::string(name), name, name, {{"size", "8"}, {std::string(name) + "1/partition", "1"}});
    Write(root + "/dev/cciss/c0d01", "");
    Write(root + "/proc/self/mountinfo", "20 1 0:30 / / rw - btrfs /dev/cciss/c0d01 rw\n");
    EXPECT_EQ(LinesOf(Drives("DeviceID Index")), "/dev/sdb|0|\n/dev/sdaa|1|\n/dev/cciss/c0d0|2|\n");
    EXPECT_EQ(LinesOf(Partitions("Caption", "WHERE DiskIndex = 2")), "/dev/cciss/c0d01|\n");
    EXPECT_THAT(Over<GatherDrivesToPartitions>(u"Win32_DiskDriveToDiskPartition", "Antecedent").objects.back(),
                HasSubstr("/dev/cciss/c0d0\""));
    EXPECT_THAT(LinesOf(Links("Antecedent")), HasSubstr("Disk #2, Partition #0"));
}

TEST_F(WmiStorageTrees, HaveCdDrives) {
    AddDevice("pci0/ata2/host3/target3:0:0/3:0:0:0", "sr0", "11:0", {{"size", "2097151"}});
    AddDevice("pci0/ata2/host3/target3:0:0/3:0:0:1", "sr1", "11:1", {{"size", "8000"}});
    const std::string second = root + "/sys/devices/pci0/ata2/host3/target3:0:0/3:0:0:1/";
    Write(second + "vendor", "Maker   \n");
    Write(second + "model", "DVD 5\n");
    Write(second + "rev", "1.2\n");
    Write(root + "/run/udev/data/b11:1",
          "E:ID_CDROM=1\nE:ID_CDROM_MEDIA=1\nE:ID_FS_LABEL_ENC=My\\x20disc\nE:ID_FS_UUID=2021-08-14-09-58-39-00\n");
    Write(root + "/proc/sys/dev/cdrom/info",
          "CD-ROM information, Id: cdrom.c 3.20 2003/12/17\n\ndrive name:\t\tsr1\tsr0\ndrive speed:\t\t48\t0\n"
          "drive # of slots:\t1\t1\nCan read DVD:\t\t1\t0\nCan write CD-R:\t\t1\t0\nCan write DVD-R:\t1\t0\n");
    Write(root + "/proc/self/mountinfo",
          "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
          "21 20 11:1 / /media/cd ro - iso9660 /dev/sr1 ro\n");
    EXPECT_EQ(
        LinesOf(Over<GatherCdDrives>(u"Win32_CDROMDrive",
                                     "DeviceID Drive Name MfrAssignedRevisionLevel MediaLoaded MediaType Size "
                                     "TransferRate VolumeName VolumeSerialNumber SCSIPort SCSILogicalUnit Status")),
        "/dev/sr0|NULL|/dev/sr0|NULL|false|CD-ROM|NULL|NULL|NULL|NULL|3|0|OK|\n"
        "/dev/sr1|/media/cd|Maker DVD 5|1.2|true|DVD Writer|4096000|8448|My disc|09583900|3|1|OK|\n");
}

TEST_F(WmiStorageTrees, HaveSwapsOfFstab) {
    AddDevice("virtual", "dm-1", "253:1", {{"size", "4194304"}});
    fs::create_directories(root + "/sys/class");
    fs::create_directory_symlink(root + "/sys/block", root + "/sys/class/block");
    Write(root + "/dev/dm-1", "");
    fs::create_directories(root + "/dev/disk/by-uuid");
    fs::create_symlink("../../dm-1", root + "/dev/disk/by-uuid/12-ab");
    fs::create_directories(root + "/dev/disk/by-label");
    fs::create_symlink("../../dm-1", root + "/dev/disk/by-label/my\\x20swap\\x2fa");
    Write(root + "/etc/fstab",
          "UUID=\"12-ab\" none swap sw 0 0\nUUID=12-AB none swap\nLABEL=\"my\\040swap/a\" none swap\n"
          "LABEL=MY\\040swap/a none swap\n/dev/gone swap swap\n/dev/sda1 / ext4\n");
    EXPECT_EQ(LinesOf(Over<GatherPageFileSettings>(u"Win32_PageFileSetting", "Name InitialSize MaximumSize")),
              "/dev/dm-1|2048|2048|\nLABEL=MY swap/a|NULL|NULL|\n/dev/gone|NULL|NULL|\n")
        << "each device once";
    EXPECT_EQ(LinesOf(Over<GatherPageFiles>(u"Win32_PageFileUsage", "Name")), "") << "without /proc/swaps";
}

TEST_F(WmiStorageTrees, FailWhenTheyCannotBeRead) {
    for (const bool isThere : {false, true}) {
        if (isThere) {
            Write(root + "/sys/block", "a file, which cannot be listed");
            fs::create_directories(root + "/proc/swaps");
            fs::create_directories(root + "/etc/fstab");
        }
        const std::tuple<const char*, Gathered, bool> rows[] = {
            {"disks", Drives("Status"), true},
            {"CD drives", Over<GatherCdDrives>(u"Win32_CDROMDrive", "Status"), true},
            {"partitions", Partitions("Status"), true},
            {"of disks", Over<GatherDrivesToPartitions>(u"Win32_DiskDriveToDiskPartition", "Antecedent"), true},
            {"of mounts", Links("Antecedent"), true},
            {"mounts", Mounts("DeviceID"), true},
            {"swaps", Over<GatherPageFiles>(u"Win32_PageFileUsage", "Status"), isThere},
            {"swaps set up", Over<GatherPageFileSettings>(u"Win32_PageFileSetting", "Name"), isThere},
        };
        for (const auto& [title, result, fails] : rows)
            EXPECT_EQ(Outcome(result).substr(0, 11), fails ? "80041004 0 " : "00000000 0") << title;
    }
    Write(root + "/proc/self/mountinfo", "20 1 8:1 / /data rw - ext4 /dev/sda1 rw\n");
    const Gathered volumes = Over<GatherLogicalDisks>(u"Win32_Volume", "Automount PageFilePresent");
    EXPECT_EQ(LinesOf(volumes), "NULL|NULL|\n");
    EXPECT_THAT(volumes.notices, ElementsAre(HasSubstr("/etc/fstab"), HasSubstr("/proc/swaps")));
}

TEST_F(WmiStorageTrees, SayOfWhichDiskPartitionsAreLost) {
    AddTwoDisks();
    const std::string disk = fs::canonical(root + "/sys/block/sda").string();
    constexpr mode_t noList = 0111;
    ASSERT_EQ(chmod(folder.c_str(), 0755) + chmod(disk.c_str(), noList), 0);
    Gathered partitions, drives;
    {
        const Nobody nobody;  // the superuser may list all
        partitions = Partitions("Caption");
        drives = Drives("Partitions");
    }
    chmod(disk.c_str(), 0755);
    EXPECT_EQ(LinesOf(partitions), "/dev/nvme0n1p1|\n/dev/nvme0n1p7|\n");
    EXPECT_THAT(partitions.notices, ElementsAre(HasSubstr("partitions of sda are missing")));
    EXPECT_EQ(LinesOf(drives), "NULL|\n2|\n");
    EXPECT_EQ(drives.notices.size(), 1U);
}

TEST_F(WmiStorage, ADeadMountDoesNotDelayTheOthers) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "test -w /dev/fuse");
    std::string folder = (fs::temp_directory_path() / "dead.XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);  // nobody answers its requests
    const std::string options = fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", device);
    const int mounted = mount("nas.example:/data", folder.c_str(), "fuse.sshfs", 0, options.c_str());
    ASSERT_EQ(mounted, 0) << std::generic_category().message(errno);

    const std::string bySpace = "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk";
    const std::string byName = fmt::format(" WHERE DeviceID = '{}'", folder);
    EXPECT_EQ(TextsOf("DriveType,ProviderName FROM Win32_LogicalDisk" + byName), "4 nas.example:/data");
    EXPECT_EQ(TextsOf("DeviceID,ProviderName FROM Win32_MappedLogicalDisk"), folder + " nas.example:/data");

    std::vector<Mount> disks = DisksAmong(ParseMountInfo(*platform::ReadSystemFile("/proc/self/mountinfo")));
    std::erase_if(disks, [&](const Mount& disk) { return disk.mountPoint != folder; });
    EXPECT_FALSE(AskMounts(disks, AskFileSystem, 100ms, [](const std::string&) {})[0]) << "the others need not wait";
    const std::tuple<std::string, std::string, std::size_t> rows[] = {
        {"all", "", 1},
        {"the dead one", byName, 1},
        {"the root", " WHERE DeviceID = '/'", 0},
        {"fixed disks", " WHERE DriveType = 3 AND FreeSpace > 0", 0},
    };
    for (const auto& [title, where, notices] : rows) {
        const auto start = steady_clock::now();
        const WmiResult result = RunWmiQuery(bySpace + where);
        EXPECT_LT(steady_clock::now() - start, 2s) << title;
        EXPECT_EQ(result.status, 0u) << title;
        EXPECT_EQ(result.rows.empty(), title == "the dead one") << title;
        EXPECT_EQ(result.notices.size(), notices) << title;
        for (const std::string& notice : result.notices) EXPECT_THAT(notice, HasSubstr(folder)) << title;
    }

    close(device);  // the kernel gives the mount up, and the thread returns
    WmiResult gone;
    for (const auto end = steady_clock::now() + 30s; gone.rows.empty() && steady_clock::now() < end;) {
        gone = RunWmiQuery(bySpace + byName);
    }
    ASSERT_EQ(gone.rows.size(), 1u);
    EXPECT_EQ(PropertyText(gone.rows[0], "FreeSpace"), "NULL");
    EXPECT_THAT(gone.notices, ElementsAre(HasSubstr(std::generic_category().message(ENOTCONN))));
    umount2(folder.c_str(), MNT_DETACH);
    fs::remove(folder);
}

TEST_F(WmiStorage, LeadsFromAMountToItsDisk) {
    if (!IsInNamespaces()) {
        return RunInNamespaces(
            "--mount",
            "mount -t tmpfs tmpfs /sys && cd /sys && mkdir -p block/kvd/kvd1 block/kvd/device dev/block "
            "&& echo 1 > block/kvd/kvd1/partition && "
            "ln -s /sys/block/kvd/kvd1 dev/block/$(mountpoint -d /)");
    }
    const std::pair<const char*, const char*> rows[] = {
        {"{Win32_LogicalDisk.DeviceID='/'} WHERE AssocClass = Win32_LogicalDiskToPartition", "Disk #0, Partition #0"},
        {"{Win32_DiskPartition.DeviceID='Disk #0, Partition #0'} WHERE ResultClass = Win32_DiskDrive", "/dev/kvd"},
        {"{Win32_DiskDrive.DeviceID='/dev/kvd'} WHERE ResultClass = Win32_DiskPartition", "Disk #0, Partition #0"},
    };
    for (const auto& [object, other] : rows) {
        const WmiResult result = RunWmiQuery(std::string("ASSOCIATORS OF ") + object);
        ASSERT_EQ(result.rows.size(), 1u) << object;
        EXPECT_EQ(PropertyText(result.rows[0], "DeviceID"), other);
    }
}

TEST_F(WmiStorage, HasTheSwapsOfTheKernelAndOfFstab) {
    if (!IsInNamespaces())
        return RunInNamespaces(
            "--mount", "touch /etc/fstab && mount -t tmpfs tmpfs /mnt && mount -t tmpfs -o size=0 tmpfs /dev/shm");
    std::ofstream("/mnt/swaps") << "Filename Type Size Used Priority\n/dev/sda2 partition 8388604 2202010 -2\n"
                                   "/mnt/a\\040file file 2096636 1100 5\n";
    std::ofstream("/mnt/fstab")
        << "x /mnt tmpfs\nx /dev/shm tmpfs noauto\n/mnt/a\\040file none swap\nLABEL=none none swap sw,noauto\n";
    std::ofstream("/mnt/a file") << std::string(3 << 20, '\0');
    ASSERT_EQ(mount("/mnt/swaps", "/proc/swaps", nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount("/mnt/fstab", "/etc/fstab", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(TextsOf("Name,AllocatedBaseSize,CurrentUsage FROM Win32_PageFileUsage"),
              "/dev/sda2 8192 2150\n/mnt/a file 2047 1");
    EXPECT_EQ(TextsOf("Name,InitialSize,MaximumSize FROM Win32_PageFileSetting"),
              "/mnt/a file 3 3\nLABEL=none NULL NULL");
    EXPECT_EQ(TextsOf("Name,PercentUsage,PercentUsagePeak FROM Win32_PerfFormattedData_PerfOS_PagingFile"),
              "/dev/sda2 26 NULL\n/mnt/a file 0 NULL\n_Total 21 NULL");
    const std::string volumes = "Name,Automount,PageFilePresent FROM Win32_Volume WHERE Name = ";
    EXPECT_EQ(TextsOf(volumes + "'/'"), "/ true false");
    EXPECT_EQ(TextsOf(volumes + "'/mnt'"), "/mnt true true");
    EXPECT_EQ(TextsOf(volumes + "'/dev/shm'"), "/dev/shm false false") << "it has no limit";
    ASSERT_EQ(mount("/dev/zero", "/proc/swaps", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(TextsOf("Name FROM Win32_PageFileUsage"), "80041004");
}

}  // namespace
}  // namespace kv::test
