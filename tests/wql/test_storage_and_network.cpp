// Disks and network interfaces: a mount that does not answer, and this machine as df and ip see it. Tests that need
// their own mounts or interfaces run again in namespaces, so that nothing outlives them.
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "facts/storage/mount_space.h"
#include "facts/system_text.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"
#include "wql/cim_value.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::HasSubstr;

using WmiStorage = WmiTest;
using WmiNetwork = WmiTest;

TEST_F(WmiStorage, ADeadMountDoesNotDelayTheOthers) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "test -w /dev/fuse");
    std::string folder = (std::filesystem::temp_directory_path() / "dead.XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);  // nobody answers its requests
    const std::string options = fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", device);
    const int mounted = mount("nas.example:/data", folder.c_str(), "fuse.sshfs", 0, options.c_str());
    ASSERT_EQ(mounted, 0) << std::generic_category().message(errno);

    const std::string bySpace = "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk";
    const std::string byName = fmt::format(" WHERE DeviceID = '{}'", folder);
    const WmiResult nameOnly = RunWmiQuery("SELECT DriveType, ProviderName FROM Win32_LogicalDisk" + byName);
    ASSERT_EQ(nameOnly.rows.size(), 1u);
    EXPECT_EQ(PropertyTexts(nameOnly.rows[0], "DriveType,ProviderName"), "4 nas.example:/data");
    const WmiResult mapped = RunWmiQuery("SELECT DeviceID, ProviderName, Description FROM Win32_MappedLogicalDisk");
    ASSERT_EQ(mapped.rows.size(), 1u) << "no others are here";
    EXPECT_EQ(PropertyTexts(mapped.rows[0], "DeviceID,ProviderName"), folder + " nas.example:/data");

    std::vector<Mount> disks =
        DisksAmong(ParseMountInfo(platform::ReadSystemFile("/proc/self/mountinfo").value_or("")));
    std::erase_if(disks, [&](const Mount& disk) { return disk.mountPoint != folder; });
    EXPECT_FALSE(AskMounts(disks, AskFileSystem, 100ms, [](const std::string&) {})[0].has_value());

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
    EXPECT_THAT(gone.notices, testing::ElementsAre(HasSubstr(std::generic_category().message(ENOTCONN))));
    umount2(folder.c_str(), MNT_DETACH);
    std::filesystem::remove(folder);
}

/// What df shows of each disk: used and available bytes, and Use%.
std::map<std::string, std::array<double, 3>> SpaceByDf() {
    std::istringstream lines(
        RunShell("df -B1 --output=target,used,avail,pcent -x devtmpfs -x overlay -x efivarfs 2>&1 |"
                 "awk '/^\\// && !/^.(sys|proc)\\// {print $1, $2, $3, $4 + 0}'")
            .output);
    std::map<std::string, std::array<double, 3>> space;
    for (std::string mount; lines >> mount;) {
        for (double& figure : space[mount]) lines >> figure;
    }
    return space;
}

TEST_F(WmiStorage, HasTheSpaceThatDfShows) {
    constexpr double tolerance = 256 << 20;  // for what others write meanwhile
    const auto numberIn = [](const WmiRow& row, const char* name) { return std::stod(PropertyText(row, name)); };
    const auto before = SpaceByDf();
    std::map<std::string, WmiRow> disks, volumes, counters;
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_LogicalDisk").rows)
        disks[PropertyText(row, "DeviceID")] = row;
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_Volume").rows)
        volumes[PropertyText(row, "DeviceID")] = row;
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_PerfFormattedData_PerfDisk_LogicalDisk").rows)
        counters[PropertyText(row, "Name")] = row;
    const auto after = SpaceByDf();
    EXPECT_FALSE(before.empty());
    for (const auto& [mount, figures] : before) {
        ASSERT_TRUE(disks.contains(mount) && volumes.contains(mount) && after.contains(mount)) << mount;
        const auto& [used, available, percent] = figures;
        const auto [least, most] = std::minmax(percent, after.at(mount)[2]);
        const double size = numberIn(disks[mount], "Size"), free = numberIn(disks[mount], "FreeSpace");
        EXPECT_NEAR(size, used + available, tolerance) << mount;
        EXPECT_NEAR(free, available, tolerance) << mount;
        EXPECT_NEAR(numberIn(volumes[mount], "Capacity"), size, tolerance) << mount;
        EXPECT_NEAR(numberIn(disks[mount], "NumberOfBlocks") * numberIn(disks[mount], "BlockSize"), size, 1) << mount;
        const double usedShare = std::ceil(100 * (size - free) / size);
        EXPECT_TRUE(least <= usedShare && usedShare <= most) << mount << ": " << usedShare << ", by df " << percent;
        const double freeShare = numberIn(counters[mount], "PercentFreeSpace");
        EXPECT_TRUE(100 - most <= freeShare && freeShare <= 100 - least) << mount << ": " << freeShare;
    }
    EXPECT_EQ(PropertyText(volumes["/"], "BootVolume"), "true");
    EXPECT_EQ(volumes.size(), disks.size());
}

TEST_F(WmiStorage, HasTheMountsThatFindmntShows) {
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_LogicalDisk").rows) {
        const std::string mount = PropertyText(row, "DeviceID");
        const std::string command = "findmnt -nro FSTYPE,OPTIONS -M '" + mount + "' | tail -n 1";
        std::istringstream shown(RunShell(command).output);
        std::string type, options;
        shown >> type >> options;
        EXPECT_EQ(PropertyText(row, "FileSystem"), type) << mount;
        EXPECT_EQ(PropertyText(row, "Access"), (options + ',').starts_with("ro,") ? "1" : "3") << mount;
    }
}

TEST_F(WmiStorage, LeadsFromAMountToItsDisk) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "mount -t tmpfs tmpfs /sys");
    struct stat root {};
    ASSERT_EQ(stat("/", &root), 0);
    const std::filesystem::path disk = "/sys/block/kvd";
    std::filesystem::create_directories(disk / "kvd1");
    std::filesystem::create_directories(disk / "device");
    std::filesystem::create_directories("/sys/dev/block");
    std::filesystem::create_symlink(disk / "kvd1",
                                    fmt::format("/sys/dev/block/{}:{}", major(root.st_dev), minor(root.st_dev)));
    std::ofstream(disk / "kvd1/partition") << "1\n";
    const auto found = [](const std::string& query) {
        const WmiResult result = RunWmiQuery(query);
        return result.rows.size() != 1 ? "" : PropertyText(result.rows[0], "DeviceID");
    };
    const std::string partition =
        found("ASSOCIATORS OF {Win32_LogicalDisk.DeviceID='/'} WHERE AssocClass = Win32_LogicalDiskToPartition");
    EXPECT_EQ(partition, "Disk #0, Partition #0");
    EXPECT_EQ(
        found("ASSOCIATORS OF {Win32_DiskPartition.DeviceID='" + partition + "'} WHERE ResultClass = Win32_DiskDrive"),
        "/dev/kvd");
    EXPECT_EQ(found("ASSOCIATORS OF {Win32_DiskDrive.DeviceID='/dev/kvd'} WHERE ResultClass = Win32_DiskPartition"),
              partition);
}

TEST_F(WmiStorage, FillsWhatIsAlwaysTrue) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"DiskDrive", "ConfigManagerUserConfig,Capabilities,CapabilityDescriptions,ConfigManagerErrorCode",
         "false [3, 4] [Random Access, Supports Writing] 0"},
        {"LogicalDisk", "ConfigManagerErrorCode,ConfigManagerUserConfig,VolumeDirty", "0 false false"},
        {"LogicalDisk WHERE FileSystem = 'ext4' AND QuotasDisabled = TRUE",
         "SupportsDiskQuotas,QuotasIncomplete,QuotasRebuilding", "true false false"},
        {"Volume", "ConfigManagerErrorCode,ConfigManagerUserConfig,DirtyBitSet,IndexingEnabled", "0 false false false"},
        {"Volume WHERE DeviceID = '/'", "Automount", "true"},
        {"Volume WHERE DriveType = 6", "QuotasEnabled,PageFilePresent", "false false"},
    };
    for (const auto& [from, properties, values] : rows) {
        const WmiResult result = RunWmiQuery(std::string("SELECT * FROM Win32_") + from);
        EXPECT_EQ(result.status, 0u) << from;
        for (const WmiRow& row : result.rows) EXPECT_EQ(PropertyTexts(row, properties), values) << from;
    }
}

TEST_F(WmiStorage, HasTheSwapsThatSwaponShows) {
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
    const std::string shown = RunShell(
                                  "swapon --show=NAME,SIZE,USED --bytes --noheadings | awk '{m = 1048576; "
                                  "used = $NF; size = $(NF - 1); NF -= 2; print $0, int(size / m + 0.5), "
                                  "int(used / m + 0.5)}'")
                                  .output;
    std::string texts;
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_PageFileUsage").rows)
        texts += PropertyTexts(row, "Name,AllocatedBaseSize,CurrentUsage") + '\n';
    EXPECT_EQ(Trimmed(texts), shown);
    texts.clear();
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_PageFileSetting").rows)
        texts += PropertyTexts(row, "Name,InitialSize,MaximumSize") + '\n';
    EXPECT_EQ(texts, "/mnt/a file 3 3\nLABEL=none NULL NULL\n");
    texts.clear();
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_PerfFormattedData_PerfOS_PagingFile").rows)
        texts += PropertyTexts(row, "Name,PercentUsage,PercentUsagePeak") + '\n';
    EXPECT_EQ(texts, "/dev/sda2 26 NULL\n/mnt/a file 0 NULL\n_Total 21 NULL\n");
    const auto volume = [](const char* mountPoint) {
        const auto rows = RunWmiQuery(fmt::format("SELECT * FROM Win32_Volume WHERE Name = '{}'", mountPoint)).rows;
        return rows.size() != 1 ? "" : PropertyTexts(rows[0], "Automount,PageFilePresent");
    };
    EXPECT_EQ(volume("/"), "true false");
    EXPECT_EQ(volume("/mnt"), "true true");
    EXPECT_EQ(volume("/dev/shm"), "false false") << "it has no limit";
    ASSERT_EQ(mount("/dev/zero", "/proc/swaps", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(RunWmiQuery("SELECT * FROM Win32_PageFileUsage").status, wmi_status::providerFailure);
}

TEST_F(WmiNetwork, HasAdaptersAndConfigurationsOfEachKind) {
    if (!IsInNamespaces()) {
        return RunInNamespaces(
            "--mount --net",
            "mount -t sysfs sysfs /sys && ip link set lo up && ip link add kv0 address 02:00:00:00:0a:0b mtu 1400 "
            "type veth peer name kv1 && ip link set kv0 up && ip link set kv1 up && ip tuntap add kv2 mode tap && "
            "ip link set kv2 up && ip link add kv3 type bridge && "
            "ip address add 192.0.2.77/24 dev kv0 valid_lft 600 preferred_lft 600 && "
            "ip address add 198.51.100.1/24 dev kv1 && ip route add default via 192.0.2.1 metric 70 && "
            "ip route add default via 192.0.2.2 metric 30 && ip route add default dev kv1 metric 90 && "
            "(ip address add 2001:db8::7/64 dev kv1 valid_lft 600 preferred_lft 600 || true)");
    }
    // The adapter's facts and its configuration's, in the order of the queries below.
    const std::pair<std::string, const char*> rows[] = {
        {"kv0", "2 true false; true true [192.0.2.2, 192.0.2.1] [30, 70] 30 false"},
        {"kv1", "2 true false; true false NULL NULL 90 false"},
        {"kv2", "7 false false; false false NULL NULL NULL NULL"},
        {"kv3", "0 false false; false false NULL NULL NULL NULL"},
    };
    EXPECT_EQ(RunWmiQuery("SELECT Name FROM Win32_NetworkAdapter").rows.size(), std::size(rows))
        << "all but the loopback";
    for (const auto& [name, facts] : rows) {
        const WmiResult adapters = RunWmiQuery("SELECT * FROM Win32_NetworkAdapter WHERE GUID = '" + name + "'");
        const WmiResult configurations =
            RunWmiQuery("SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID = '" + name + "'");
        ASSERT_EQ(adapters.rows.size() * configurations.rows.size(), 1u) << name;
        const WmiRow &adapter = adapters.rows[0], &configuration = configurations.rows[0];
        EXPECT_EQ(PropertyTexts(adapter, "NetConnectionStatus,NetEnabled,PhysicalAdapter") + "; " +
                      PropertyTexts(configuration,
                                    "IPEnabled,DHCPEnabled,DefaultIPGateway,GatewayCostMetric,IPConnectionMetric,"
                                    "FullDNSRegistrationEnabled"),
                  facts)
            << name;
        EXPECT_EQ(PropertyText(configuration, "Index"), PropertyText(adapter, "Index")) << name;
        if (name != "kv0") continue;
        EXPECT_EQ(PropertyText(configuration, "IPAddress").substr(0, 11), "[192.0.2.77");  // IPv6 may follow
        EXPECT_EQ(PropertyText(configuration, "IPSubnet").substr(0, 14), "[255.255.255.0");
        EXPECT_EQ(PropertyTexts(adapter, "MACAddress,Speed"), "02:00:00:00:0A:0B 10000000000")
            << "the speed of each such pair";
        EXPECT_EQ(PropertyText(configuration, "MTU"), "1400");
        const auto end = MicrosecondsOfDmtf(platform::WideFromUtf8(PropertyText(configuration, "DHCPLeaseExpires")));
        const auto now = std::chrono::system_clock::now().time_since_epoch() / 1us;
        EXPECT_NEAR(static_cast<double>(end.value_or(0) - now), 600e6, 30e6);
    }
}

}  // namespace
}  // namespace kv::test
