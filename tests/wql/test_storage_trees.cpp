// Drives, partitions and swaps that this machine does not have: the storage classes over trees of files, and the names
// by which their objects refer to each other.
#include <gmock/gmock.h>

#include "tests/support/test_folder.h"
#include "tests/wql/gathered.h"
#include "wql/classes/storage_sources.h"
#include "wql/object_path.h"

namespace kv::test {
namespace {

using namespace wql;
namespace fs = std::filesystem;

std::string root;  // of the current test

class WmiStorageTrees : public TestFolder {
  protected:
    WmiStorageTrees() { root = (folder / "root").string(); }

    /// A device below /sys, with the links to it: "sda" at "ata1/.../0:0:0:0", "sda/sda1" for a partition.
    static void AddDevice(const std::string& place, const std::string& name, const std::string& number,
                          const std::vector<std::pair<const char*, const char*>>& files) {
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

    template <auto gather>
    static Gathered Over(std::string_view query) {
        return GatherFor(query, [](const Gathering& gathering) { return gather(gathering, root); });
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

    /// The names of the objects that a query with the keys of a class finds.
    template <auto gather>
    static std::vector<std::string> Paths(const std::string& className) {
        const std::string key = platform::Utf8FromWide(FindClass(platform::WideFromUtf8(className))->keys);
        std::vector<std::string> paths;
        std::string keys = Over<gather>("SELECT " + key + " FROM " + className).objects;
        std::string_view left = keys;
        for (std::string_view line; facts::TakeLine(left, line);) {
            line.remove_suffix(1);
            paths.push_back(platform::Utf8FromWide(
                ObjectPath(platform::WideFromUtf8(className), {{platform::WideFromUtf8(key), CimValue(line)}})));
        }
        return paths;
    }
};

TEST_F(WmiStorageTrees, HaveDisksAndPartitions) {
    AddTwoDisks();
    EXPECT_EQ(Over<GatherDiskDrives>("SELECT DeviceID, Index, Partitions, Signature, Status, ConfigManagerErrorCode, "
                                     "ConfigManagerUserConfig, Capabilities FROM Win32_DiskDrive")
                  .objects,
              "/dev/nvme0n1|0|2|NULL|Error|24|false|array|\n/dev/sda|1|4|-1977930691|OK|0|false|array|\n");
    EXPECT_EQ(Over<GatherDiskPartitions>("SELECT DeviceID, Name, Caption, DiskIndex, Index, Type, Bootable, "
                                         "PrimaryPartition FROM Win32_DiskPartition")
                  .objects,
              "Disk #0, Partition #0|Disk #0, Partition #0|/dev/nvme0n1p1|0|0|GPT: System|true|true|\n"
              "Disk #0, Partition #1|Disk #0, Partition #1|/dev/nvme0n1p7|0|1|GPT: Unknown|false|true|\n"
              "Disk #1, Partition #0|Disk #1, Partition #0|/dev/sda1|1|0|Installable File System|true|true|\n"
              "Disk #1, Partition #1|Disk #1, Partition #1|/dev/sda2|1|1|Extended w/Extended Int 13|false|false|\n"
              "Disk #1, Partition #2|Disk #1, Partition #2|/dev/sda5|1|2|Unknown|false|false|\n"
              "Disk #1, Partition #3|Disk #1, Partition #3|/dev/sda10|1|3|Unknown|NULL|NULL|\n");
    EXPECT_EQ(Over<GatherDiskPartitions>("SELECT StartingOffset, Size, BlockSize, NumberOfBlocks, Access, Status, "
                                         "PNPDeviceID FROM Win32_DiskPartition WHERE Index = 0")
                  .objects,
              "4096|8192|512|16|3|Error|pci0/nvme/nvme0/block/nvme0n1/nvme0n1p1|\n"
              "32768|409600|4096|100|1|OK|pci0/ata1/host2/target2:0:1/2:0:1:3/block/sda/sda1|\n");
}

TEST_F(WmiStorageTrees, ReferToObjectsByTheirPaths) {
    AddTwoDisks();
    Write(root + "/dev/sda5", "");
    Write(root + "/proc/self/mountinfo",
          "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n21 20 8:1 /x /x rw - ext4 /dev/sda1 rw\n"
          "22 20 7:0 / /image ro - ext4 /dev/loop0 ro\n23 20 0:40 /a /da\\134ta rw - btrfs /dev/sda5 rw,subvol=/a\n"
          "24 20 0:41 / /net rw - nfs4 nas:/x rw\n");
    const std::vector<std::string> partitions = Paths<GatherDiskPartitions>("Win32_DiskPartition");
    const std::vector<std::string> disks = Paths<GatherDiskDrives>("Win32_DiskDrive");
    const auto ends = [](const std::string& objects) {
        std::vector<std::string> texts;
        std::string_view left = objects;
        for (std::string_view line; facts::TakeLine(left, line);) texts.emplace_back(line.substr(0, line.find('|')));
        return texts;
    };
    const auto text = Over<GatherDrivesToPartitions>("SELECT Dependent FROM Win32_DiskDriveToDiskPartition").objects;
    EXPECT_EQ(ends(text), partitions);
    const auto of =
        ends(Over<GatherDrivesToPartitions>("SELECT Antecedent FROM Win32_DiskDriveToDiskPartition").objects);
    EXPECT_THAT(of, testing::ElementsAre(disks[0], disks[0], disks[1], disks[1], disks[1], disks[1]));
    const Gathered mounts = Over<GatherLogicalDisksToPartitions>(
        "SELECT Antecedent, Dependent, StartingAddress, EndingAddress FROM Win32_LogicalDiskToPartition");
    const std::string host = platform::Utf8FromWide(ObjectPath(u"", {}));
    const std::string disk = host.substr(0, host.size() - 2) + "Win32_LogicalDisk.DeviceID=";
    EXPECT_EQ(mounts.objects, partitions[2] + "|" + disk + "\"/\"|32768|442367|\n" + partitions[4] + "|" + disk +
                                  "\"/da\\\\ta\"|1024000|1028095|\n");
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
    EXPECT_EQ(Over<GatherCdDrives>("SELECT DeviceID, Drive, Name, MfrAssignedRevisionLevel, MediaLoaded, MediaType, "
                                   "Size, TransferRate, VolumeName, VolumeSerialNumber, SCSIPort, SCSILogicalUnit, "
                                   "Status FROM Win32_CDROMDrive")
                  .objects,
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
    Write(root + "/etc/fstab", "UUID=\"12-ab\" none swap sw 0 0\n/dev/gone swap swap\n/dev/sda1 / ext4\n");
    EXPECT_EQ(Over<GatherPageFileSettings>("SELECT Name, InitialSize, MaximumSize FROM Win32_PageFileSetting").objects,
              "/dev/dm-1|2048|2048|\n/dev/gone|NULL|NULL|\n");
    EXPECT_EQ(Over<GatherPageFiles>("SELECT Name FROM Win32_PageFileUsage").objects, "") << "without /proc/swaps";
}

TEST_F(WmiStorageTrees, FailWhenTheyCannotBeRead) {
    const auto statusOf = [](Gathered gathered) { return gathered.status; };
    for (const bool isThere : {false, true}) {
        if (isThere) {
            Write(root + "/sys/block", "a file, which cannot be listed");
            fs::create_directories(root + "/proc/swaps");
            fs::create_directories(root + "/etc/fstab");
        }
        const WmiStatus failure = wmi_status::providerFailure;
        EXPECT_EQ(statusOf(Over<GatherDiskDrives>("SELECT * FROM Win32_DiskDrive")), failure);
        EXPECT_EQ(statusOf(Over<GatherCdDrives>("SELECT * FROM Win32_CDROMDrive")), failure);
        EXPECT_EQ(statusOf(Over<GatherDiskPartitions>("SELECT * FROM Win32_DiskPartition")), failure);
        EXPECT_EQ(statusOf(Over<GatherDrivesToPartitions>("SELECT * FROM Win32_DiskDriveToDiskPartition")), failure);
        EXPECT_EQ(statusOf(Over<GatherLogicalDisksToPartitions>("SELECT * FROM Win32_LogicalDiskToPartition")),
                  failure);
        EXPECT_EQ(statusOf(Over<GatherPageFiles>("SELECT * FROM Win32_PageFileUsage")), isThere ? failure : 0);
        EXPECT_EQ(statusOf(Over<GatherPageFileSettings>("SELECT * FROM Win32_PageFileSetting")), isThere ? failure : 0);
    }
}

}  // namespace
}  // namespace kv::test
