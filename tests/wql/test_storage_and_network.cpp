// Disks and network interfaces: which mounts are disks, mounts that do not answer, and this machine as df,
// lsblk and ip see it. What needs mounts or interfaces of its own runs once more in namespaces, where nothing outlives
// it.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <memory>
#include <semaphore>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

#include "facts/mount_space.h"
#include "facts/system_text.h"
#include "facts/volume_facts.h"
#include "platform/backend.h"
#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"
#include "wql/cim_value.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct WmiStorage : ::testing::Test {
    WmiStorage() {
        platform::InstallBackend();
        platform::InstallWmi();
    }
};
using WmiNetwork = WmiStorage;

bool IsInNamespaces() { return std::getenv("KV_IN_NAMESPACES") != nullptr; }

/// Runs the current test once more in namespaces of its own, after a line for the shell.
void RunInNamespaces(const std::string& flags, const std::string& preparation) {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const ShellOutcome outcome =
        RunShell(fmt::format("(unshare {0} true || exit 77; export KV_IN_NAMESPACES=1; "
                             "unshare {0} sh -c '({1}) || exit 77; exec {2} --gtest_filter={3}.{4}') 2>&1",
                             flags, preparation, std::filesystem::read_symlink("/proc/self/exe").string(),
                             test->test_suite_name(), test->name()));
    if (outcome.exitCode == 77) GTEST_SKIP() << "not allowed here, or not possible: " << outcome.output;
    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
}

TEST(WmiMounts, DisksAreWhatAUserTakesForDisks) {
    const std::tuple<const char*, std::string, std::string> rows[] = {
        {"the kernel's own file systems and triggers are none",
         "21 20 0:5 / /proc rw - proc proc rw\n22 20 0:6 / /sys/fs/cgroup rw - tmpfs tmpfs rw\n"
         "23 20 0:7 / /n rw - autofs a rw\n25 20 0:9 / /r rw - ramfs a rw\n24 20 0:8 / /run rw s:3 m:1 - tmpfs a rw\n",
         " 0:8@/run"},
        {"a point with a blank in its name", "21 20 0:5 / /a\\040b rw - tmpfs  rw\n", " 0:5@/a b"},
        {"a device once, where all of it is, at the shortest point",
         "21 20 8:2 /sub /x rw - xfs /dev/sdb rw\n22 20 8:2 / /a/data rw - xfs /dev/sdb rw\n"
         "23 20 8:2 / /srv rw - xfs /dev/sdb rw\n24 20 8:2 / /mnt/top rw - xfs /dev/sdb rw\n",
         " 8:2@/srv"},
        {"the root, though more of it is elsewhere", "21 20 8:1 / /top rw - btrfs /dev/sda rw\n", ""},
        {"a subvolume is a disk, a folder of it is none",
         "21 20 8:1 /@h /home rw - btrfs /dev/sda rw,subvolid=1,subvol=/@h\n22 20 8:1 /@h/w /w rw - btrfs /dev/sda "
         "rw,subvol=/@h\n",
         " 8:1@/home"},
        {"two folders of one server are two disks",
         "21 20 0:5 / /a rw - nfs4 nas:/a rw\n22 20 0:5 / /b rw - nfs4 nas:/b rw\n", " 0:5@/a 0:5@/b"},
        {"a mount over the way to others hides them, and what lies on them",
         "21 20 8:2 / /m/a rw - ext4 /dev/sdb rw\n22 21 8:3 / /m/a/b rw - ext4 /dev/sdc rw\n"
         "23 20 8:4 / /m rw - ext4 /dev/sdd rw\n24 20 8:5 / /my rw - ext4 /dev/sde rw\n",
         " 8:4@/m 8:5@/my"},
        {"lines that are not mounts hide no others",
         "24 20 0:8 / /run rw - tmpfs a rw\nx\n\n21 20 0:5 / /a rw\n22 20 0:6 / b rw - xfs /dev/sdb rw\n", " 0:8@/run"},
        {"layers upon other file systems are none", "21 20 0:5 / /var/c1 rw - overlay overlay rw\n", ""},
    };
    // what is mounted and which disks that are, both beside the root
    for (const auto& [title, mountInfo, others] : rows) {
        std::string disks;
        for (const Mount& disk : DisksAmong(ParseMountInfo(mountInfo + "20 1 8:1 /@ / rw - btrfs /dev/sda rw"))) {
            disks += fmt::format(" {}@{}", disk.device, disk.mountPoint);
        }
        EXPECT_EQ(disks, " 8:1@/" + others) << title;
    }
}

TEST(WmiMounts, KindsOfDrives) {
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

TEST(WmiMounts, NoMountIsWaitedForTwice) {
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
    EXPECT_FALSE(ask(100ms)[0].has_value());
    EXPECT_THAT(notices, ElementsAre(HasSubstr("/dead")));
    const auto start = steady_clock::now();
    const auto again = ask(30s);
    EXPECT_LT(steady_clock::now() - start, 30s) << "known as silent: skipped at once";
    EXPECT_FALSE(again[0].has_value());
    EXPECT_TRUE(again[1].has_value());
    EXPECT_EQ(notices.size(), 1u);
    EXPECT_EQ(*asked, 1) << "one stuck thread at most";
    mounts[0].device = "0:99";
    EXPECT_FALSE(ask(50ms)[0].has_value());
    EXPECT_EQ(*asked, 2) << "mounted anew: another mount";
    released->release(100);
    std::vector<std::optional<SpaceAnswer>> answers;
    const auto end = steady_clock::now() + 30s;
    do answers = ask(10s);
    while (!answers[0] && steady_clock::now() < end);
    EXPECT_TRUE(answers[0]) << "back, and no longer left out";
    const int before = *asked;
    ask(10s);
    EXPECT_EQ(*asked, before + 1) << "asked anew each time";
    EXPECT_TRUE(notices.empty());
}

TEST_F(WmiStorage, ADeadMountCostsOthersNothing) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "test -w /dev/fuse");
    std::string folder = (std::filesystem::temp_directory_path() / "dead.XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);  // no one will ever answer what comes by it
    const std::string options = fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", device);
    const int mounted = mount("nas.example:/data", folder.c_str(), "fuse.sshfs", 0, options.c_str());
    ASSERT_EQ(mounted, 0) << std::generic_category().message(errno);

    const std::string bySpace = "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk";
    const std::string byName = fmt::format(" WHERE DeviceID = '{}'", folder);
    const WmiResult nameOnly = RunWmiQuery("SELECT DriveType, ProviderName FROM Win32_LogicalDisk" + byName);
    ASSERT_EQ(nameOnly.rows.size(), 1u);
    EXPECT_EQ(TextsOf(nameOnly.rows[0], "DriveType,ProviderName"), "4 nas.example:/data");

    std::vector<Mount> disks =
        DisksAmong(ParseMountInfo(platform::ReadSystemFile("/proc/self/mountinfo").value_or("")));
    std::erase_if(disks, [&](const Mount& disk) { return disk.mountPoint != folder; });
    EXPECT_FALSE(AskMounts(disks, AskFileSystem, 100ms, [](const std::string&) {})[0].has_value());

    const std::tuple<std::string, std::string, std::size_t> rows[] = {
        {"all", "", 1},
        {"itself", byName, 1},
        {"the root", " WHERE DeviceID = '/'", 0},
        {"fixed disks", " WHERE DriveType = 3 AND FreeSpace > 0", 0},
    };
    for (const auto& [title, where, notices] : rows) {
        const auto start = steady_clock::now();
        const WmiResult result = RunWmiQuery(bySpace + where);
        EXPECT_LT(steady_clock::now() - start, 2s) << title << ": as long as a mount is waited for";
        EXPECT_EQ(result.status, 0u) << title;
        EXPECT_EQ(result.rows.empty(), title == "itself") << title;
        EXPECT_EQ(result.notices.size(), notices) << title;
        for (const std::string& notice : result.notices) EXPECT_THAT(notice, HasSubstr(folder)) << title;
    }

    close(device);  // the kernel gives up on it, and the thread comes back
    WmiResult gone;
    for (const auto end = steady_clock::now() + 30s; gone.rows.empty() && steady_clock::now() < end;) {
        gone = RunWmiQuery(bySpace + byName);
    }
    ASSERT_EQ(gone.rows.size(), 1u);
    EXPECT_EQ(TextOf(gone.rows[0], "FreeSpace"), "NULL");
    EXPECT_THAT(gone.notices, ElementsAre(HasSubstr(std::generic_category().message(ENOTCONN))));
    umount2(folder.c_str(), MNT_DETACH);
    std::filesystem::remove(folder);
}

TEST_F(WmiStorage, SpaceIsThatOfDf) {
    std::istringstream mounts(RunShell("df -B1 --output=target,size,avail -x devtmpfs -x overlay -x efivarfs 2>&1 |"
                                       "awk '/^\\// && !/^.(sys|proc)\\//'")
                                  .output);
    constexpr double tolerance = 256 << 20;  // others write meanwhile
    double available = 0;
    for (std::string mount, size; mounts >> mount >> size >> available;) {
        const WmiResult disk = RunWmiQuery("SELECT * FROM Win32_LogicalDisk WHERE DeviceID = '" + mount + "'");
        ASSERT_EQ(disk.rows.size(), 1u) << mount;
        EXPECT_EQ(TextOf(disk.rows[0], "Size"), size) << mount;
        EXPECT_NEAR(std::stod(TextOf(disk.rows[0], "FreeSpace")), available, tolerance) << mount;
    }
    const WmiResult root = RunWmiQuery("SELECT * FROM Win32_Volume WHERE DriveLetter = '/'");
    ASSERT_EQ(root.rows.size(), 1u);
    EXPECT_EQ(TextOf(root.rows[0], "BootVolume"), "true");
    EXPECT_EQ(RunWmiQuery("SELECT * FROM Win32_Volume").rows.size(),
              RunWmiQuery("SELECT * FROM Win32_LogicalDisk").rows.size());
}

TEST_F(WmiNetwork, AdaptersAndTheirConfigurations) {
    if (!IsInNamespaces()) {
        return RunInNamespaces(
            "--mount --net",
            "mount -t sysfs sysfs /sys && ip link set lo up && ip link add kv0 address 02:00:00:00:0a:0b mtu 1400 "
            "type veth peer name kv1 && ip link set kv0 up && ip link set kv1 up && ip tuntap add kv2 mode tap && "
            "ip link set kv2 up && ip link add kv3 type bridge && "
            "ip address add 192.0.2.77/24 dev kv0 valid_lft 600 preferred_lft 600 && "
            "ip address add 198.51.100.1/24 dev kv1 && ip route add default via 192.0.2.1 && "
            "(ip address add 2001:db8::7/64 dev kv1 valid_lft 600 preferred_lft 600 || true)");
    }
    // the adapter's NetConnectionStatus, NetEnabled, PhysicalAdapter; the configuration's IPEnabled and so on
    const std::pair<std::string, const char*> rows[] = {
        {"kv0", "2 true false; true true array array"},
        {"kv1", "2 true false; true false array NULL"},
        {"kv2", "7 false false; false false NULL NULL"},
        {"kv3", "0 false false; false false NULL NULL"},
    };
    EXPECT_EQ(RunWmiQuery("SELECT Name FROM Win32_NetworkAdapter").rows.size(), std::size(rows)) << "no loopback";
    for (const auto& [name, facts] : rows) {
        const WmiResult adapters = RunWmiQuery("SELECT * FROM Win32_NetworkAdapter WHERE GUID = '" + name + "'");
        const WmiResult configurations =
            RunWmiQuery("SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID = '" + name + "'");
        ASSERT_EQ(adapters.rows.size() * configurations.rows.size(), 1u) << name;
        const WmiRow &adapter = adapters.rows[0], &configuration = configurations.rows[0];
        EXPECT_EQ(TextsOf(adapter, "NetConnectionStatus,NetEnabled,PhysicalAdapter") + "; " +
                      TextsOf(configuration, "IPEnabled,DHCPEnabled,IPAddress,DefaultIPGateway"),
                  facts)
            << name;
        EXPECT_EQ(TextOf(configuration, "Index"), TextOf(adapter, "Index")) << name;
        if (name != "kv0") continue;
        EXPECT_EQ(TextsOf(adapter, "MACAddress,Speed"), "02:00:00:00:0A:0B 10000000000") << "as all such pairs say";
        EXPECT_EQ(TextOf(configuration, "MTU"), "1400");
        const auto end = MicrosecondsOfDmtf(platform::WideFromUtf8(TextOf(configuration, "DHCPLeaseExpires")));
        const auto now = std::chrono::system_clock::now().time_since_epoch() / 1us;
        EXPECT_NEAR(static_cast<double>(end.value_or(0) - now), 600e6, 30e6);
    }
}

}  // namespace
}  // namespace kv::test
