// Disks, swaps and network interfaces that each test makes in namespaces of its own, among them a mount that does not
// answer.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/mount.h>
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
    EXPECT_THAT(gone.notices, testing::ElementsAre(HasSubstr(std::generic_category().message(ENOTCONN))));
    umount2(folder.c_str(), MNT_DETACH);
    std::filesystem::remove(folder);
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
    EXPECT_EQ(TextsOf("Name,AllocatedBaseSize,CurrentUsage FROM Win32_PageFileUsage"), shown);
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
    EXPECT_EQ(RowTexts("Name FROM Win32_NetworkAdapter").size(), std::size(rows)) << "all but the loopback";
    for (const auto& [name, facts] : rows) {
        const std::string adapter = " FROM Win32_NetworkAdapter WHERE GUID = '" + name + "'";
        const std::string configuration = " FROM Win32_NetworkAdapterConfiguration WHERE SettingID = '" + name + "'";
        EXPECT_EQ(TextsOf("NetConnectionStatus,NetEnabled,PhysicalAdapter" + adapter) + "; " +
                      TextsOf("IPEnabled,DHCPEnabled,DefaultIPGateway,GatewayCostMetric,IPConnectionMetric,"
                              "FullDNSRegistrationEnabled" +
                              configuration),
                  facts)
            << name;
        EXPECT_EQ(TextsOf("Index" + configuration), TextsOf("Index" + adapter)) << name;
        if (name != "kv0") continue;
        EXPECT_EQ(TextsOf("MACAddress,Speed" + adapter), "02:00:00:00:0A:0B 10000000000")
            << "the speed of each such pair";
        EXPECT_THAT(TextsOf("MTU,IPAddress" + configuration),
                    testing::StartsWith("1400 [192.0.2.77"));  // IPv6 may follow
        EXPECT_THAT(TextsOf("IPSubnet" + configuration), testing::StartsWith("[255.255.255.0"));
        const auto end = MicrosecondsOfDmtf(platform::WideFromUtf8(TextsOf("DHCPLeaseExpires" + configuration)));
        const auto now = std::chrono::system_clock::now().time_since_epoch() / 1us;
        EXPECT_NEAR(static_cast<double>(end.value_or(0) - now), 600e6, 30e6);
    }
}

}  // namespace
}  // namespace kv::test
