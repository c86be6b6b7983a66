// Drives, partitions and swaps that this machine does not have: the storage classes over trees of files, and the names
// by which their objects refer to each other.
#include <gmock/gmock.h>

#include "facts/volume_facts.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/test_folder.h"
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
    static Gathered Over(std::u16string_view className, std::string_view names, std::string_view where = {}) {
        return GatherTexts(
            className, names, [](const Gathering& gathering) { return gather(gathering, root); }, where);
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

    /// The paths of a class's objects, with "|" behind each, made of the class's key.
    template <auto gather>
    static std::vector<std::string> Paths(std::u16string_view className) {
        const std::u16string_view key = FindClass(className)->keys;
        std::vector<std::string> paths = Over<gather>(className, platform::Utf8FromWide(key)).objects;
        for (std::string& path : paths) {
            path.pop_back();
            path = platform::Utf8FromWide(ObjectPath(className, {{std::u16string(key), CimValue(path)}})) + '|';
        }
        return paths;
    }
};

TEST_F(WmiStorageTrees, HaveDisksAndPartitions) {
    AddTwoDisks();
    EXPECT_EQ(
        LinesOf(Over<GatherDiskDrives>(
            u"Win32_DiskDrive",
            "DeviceID Index Partitions Signature Status ConfigManagerErrorCode ConfigManagerUserConfig Capabilities")),
        "/dev/nvme0n1|0|2|NULL|Error|24|false|array|\n/dev/sda|1|4|-1977930691|OK|0|false|array|\n");
    EXPECT_EQ(LinesOf(Over<GatherDiskPartitions>(
                  u"Win32_DiskPartition", "DeviceID Name Caption DiskIndex Index Type Bootable PrimaryPartition")),
              "Disk #0, Partition #0|Disk #0, Partition #0|/dev/nvme0n1p1|0|0|GPT: System|true|true|\n"
              "Disk #0, Partition #1|Disk #0, Partition #1|/dev/nvme0n1p7|0|1|GPT: Unknown|false|true|\n"
              "Disk #1, Partition #0|Disk #1, Partition #0|/dev/sda1|1|0|Installable File System|true|true|\n"
              "Disk #1, Partition #1|Disk #1, Partition #1|/dev/sda2|1|1|Extended w/Extended Int 13|false|false|\n"
              "Disk #1, Partition #2|Disk #1, Partition #2|/dev/sda5|1|2|Unknown|false|false|\n"
              "Disk #1, Partition #3|Disk #1, Partition #3|/dev/sda10|1|3|Unknown|NULL|NULL|\n");
    EXPECT_EQ(LinesOf(Over<GatherDiskPartitions>(
                  u"Win32_DiskPartition", "StartingOffset Size BlockSize NumberOfBlocks Access Status PNPDeviceID",
                  "WHERE Index = 0")),
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
    const std::vector<std::string> disks = Paths<GatherDiskDrives>(u"Win32_DiskDrive");
    const std::vector<std::string> partitions = Paths<GatherDiskPartitions>(u"Win32_DiskPartition");
    ASSERT_EQ(partitions.size(), 6U);
    std::vector<std::string> pairs;
    for (std::size_t at = 0; at < partitions.size(); ++at) pairs.push_back(disks.at(at < 2 ? 0 : 1) + partitions[at]);
    EXPECT_EQ(Over<GatherDrivesToPartitions>(u"Win32_DiskDriveToDiskPartition", "Antecedent Dependent").objects, pairs);
    const auto pathOfMount = [](const char16_t* mountPoint) {
        return platform::Utf8FromWide(ObjectPath(u"Win32_LogicalDisk", {{u"DeviceID", mountPoint}})) + '|';
    };
    EXPECT_THAT(Over<GatherLogicalDisksToPartitions>(u"Win32_LogicalDiskToPartition",
                                                     "Antecedent Dependent StartingAddress EndingAddress")
                    .objects,
                testing::ElementsAre(partitions[2] + pathOfMount(u"/") + "32768|442367|",
                                     partitions[4] + pathOfMount(u"/da\\ta") + "1024000|1028095|"));
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

TEST_F(WmiStorageTrees, NeedACheckAfterErrors) {
    Write(root + "/sys/fs/ext4/sda1/errors_count", "2\n");
    Write(root + "/sys/fs/ext4/sda2/errors_count", "0\n");
    EXPECT_TRUE(facts::NeedsCheck("sda1", root));
    EXPECT_FALSE(facts::NeedsCheck("sda2", root));
    EXPECT_FALSE(facts::NeedsCheck("", root));
}

TEST_F(WmiStorageTrees, HaveSwapsOfFstab) {
    AddDevice("virtual", "dm-1", "253:1", {{"size", "4194304"}});
    fs::create_directories(root + "/sys/class");
    fs::create_directory_symlink(root + "/sys/block", root + "/sys/class/block");
    Write(root + "/dev/dm-1", "");
    fs::create_directories(root + "/dev/disk/by-uuid");
    fs::create_symlink("../../dm-1", root + "/dev/disk/by-uuid/12-ab");
    Write(root + "/etc/fstab", "UUID=\"12-ab\" none swap sw 0 0\n/dev/gone swap swap\n/dev/sda1 / ext4\n");
    EXPECT_EQ(LinesOf(Over<GatherPageFileSettings>(u"Win32_PageFileSetting", "Name InitialSize MaximumSize")),
              "/dev/dm-1|2048|2048|\n/dev/gone|NULL|NULL|\n");
    EXPECT_EQ(LinesOf(Over<GatherPageFiles>(u"Win32_PageFileUsage", "Name")), "") << "without /proc/swaps";
}

TEST_F(WmiStorageTrees, FailWhenTheyCannotBeRead) {
    for (const bool isThere : {false, true}) {
        if (isThere) {
            Write(root + "/sys/block", "a file, which cannot be listed");
            fs::create_directories(root + "/proc/swaps");
            fs::create_directories(root + "/etc/fstab");
        }
        const WmiStatus failure = wmi_status::providerFailure;
        EXPECT_EQ(Over<GatherDiskDrives>(u"Win32_DiskDrive", "Status").status, failure);
        EXPECT_EQ(Over<GatherCdDrives>(u"Win32_CDROMDrive", "Status").status, failure);
        EXPECT_EQ(Over<GatherDiskPartitions>(u"Win32_DiskPartition", "Status").status, failure);
        EXPECT_EQ(Over<GatherDrivesToPartitions>(u"Win32_DiskDriveToDiskPartition", "Antecedent").status, failure);
        EXPECT_EQ(Over<GatherLogicalDisksToPartitions>(u"Win32_LogicalDiskToPartition", "Antecedent").status, failure);
        EXPECT_EQ(Over<GatherPageFiles>(u"Win32_PageFileUsage", "Status").status, isThere ? failure : 0);
        EXPECT_EQ(Over<GatherPageFileSettings>(u"Win32_PageFileSetting", "Name").status, isThere ? failure : 0);
    }
}

}  // namespace
}  // namespace kv::test
