// TCP, queues of adapters, routes, echoes and shares; ss, nstat and tc see the same. Each test that needs its
// own network runs again in a namespace.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vector>

#include "platform/linux/descriptor.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/shell.h"
#include "wql/cim_value.h"
#include "wql/classes/network/shares.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
namespace wmi_status = platform::wmi_status;
using platform::Descriptor;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using WmiNetwork = WmiTest;

std::string Shell(const std::string& command) { return RunShell(command).output; }

/// Both ends of a connection over the loopback interface, to an address as a socket for both families writes it.
std::vector<Descriptor> Connect(const char* text) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    Descriptor listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener.get(), plain, length), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    getsockname(listener.get(), plain, &length);
    inet_pton(AF_INET6, text, &address.sin6_addr);
    std::vector<Descriptor> ends;
    ends.emplace_back(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(ends[0].get(), plain, length), 0);
    ends.emplace_back(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    return ends;
}

TEST_F(WmiNetwork, CountsTcpAsNstatAndSsDo) {
    if (!IsInNamespaces()) return RunInNamespaces("--net", "ip link set lo up");
    const std::vector<Descriptor> connections[] = {Connect("::1"), Connect("::1"), Connect("::ffff:127.0.0.1")};
    shutdown(connections[0][0].get(), SHUT_WR);  // the other end is still counted
    constexpr const char* nstat =
        "nstat -asz | awk '{v[$1] = $2} END {i = v[\"TcpInSegs\"]; o = v[\"TcpOutSegs\"]; print "
        "v[\"TcpAttemptFails\"], "
        "v[\"TcpActiveOpens\"], v[\"TcpPassiveOpens\"], v[\"TcpEstabResets\"], i + o, i, v[\"TcpRetransSegs\"], o}'";
    std::string counted = Shell(nstat), shown;
    for (int attempt = 0; attempt < 50; ++attempt) {  // an answer may still be on its way
        shown = TextsOf(
            "ConnectionFailures,ConnectionsActive,ConnectionsPassive,ConnectionsReset,SegmentsPersec,"
            "SegmentsReceivedPersec,SegmentsRetransmittedPersec,SegmentsSentPersec FROM Win32_PerfRawData_Tcpip_TCPv4");
        if (counted == Shell(nstat)) break;
        counted = Shell(nstat);
    }
    EXPECT_EQ(shown, counted);
    EXPECT_THAT(shown, testing::StartsWith("0 3 3 "));
    const std::string ss = "ss -Htn state established state close-wait dst ";
    for (const auto& [version, address] : {std::pair("v4", "127.0.0.1"), {"v6", "[::1]"}}) {
        const std::string from = std::string("ConnectionsEstablished FROM Win32_PerfFormattedData_Tcpip_TCP") + version;
        EXPECT_EQ(TextsOf(from), Shell(ss + address + " | wc -l")) << version;
    }
    EXPECT_EQ(TextsOf("SegmentsPersec FROM Win32_PerfRawData_Tcpip_TCPv6"), "NULL");
}

/// kv0 can send to 192.0.2.78.
constexpr const char* sender =
    "ip link add kv0 type veth peer name kv1 && ip address add 192.0.2.77/24 dev kv0 && ip link set kv1 up && "
    "ip link set kv0 up && ip neigh add 192.0.2.78 lladdr 02:00:00:00:0a:0b dev kv0";

TEST_F(WmiNetwork, HasTheQueuesThatTcShows) {
    if (!IsInNamespaces()) {
        return RunInNamespaces(
            "--net", std::string("(echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6 || true) && ") + sender +
                         " && ip link add kv2 type veth peer name kv3 && "
                         "tc qdisc add dev kv0 root tbf rate 8bit burst 1540 limit 100000");
    }
    const Descriptor datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{AF_INET, htons(9), {inet_addr("192.0.2.78")}, {}};
    const char load[1000] = {};
    const auto sendSome = [&](int count) {
        while (count-- > 0)
            sendto(datagrams.get(), load, sizeof(load), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    };
    sendSome(7);
    const std::string queued = Shell("tc -s qdisc show dev kv0 | sed -n \"s/.*backlog [^ ]* \\([0-9]*\\)p.*/\\1/p\"");
    EXPECT_GT(std::atoi(queued.c_str()), 1);
    for (const char* name : {"NetworkAdapter", "NetworkInterface"}) {
        EXPECT_THAT(
            RowTexts(std::string("Name,OutputQueueLength,OffloadedConnections FROM Win32_PerfFormattedData_Tcpip_") +
                     name),
            testing::IsSupersetOf({"kv0 " + queued + " 0", std::string("kv1 0 0"), std::string("kv2 0 0")}))
            << "kv1 has no queue, kv2 is switched off";
    }
    Shell(std::string("ip link del kv0 && ") + sender);
    sendSome(100);
    for (const char* name : {"NetworkAdapter", "NetworkInterface"}) {
        const std::string sent =
            TextsOf(fmt::format("BytesSentPersec FROM Win32_PerfFormattedData_Tcpip_{} WHERE Name = 'kv0'", name));
        EXPECT_GT(std::atoi(sent.c_str()), 1000)
            << "100 KB since the last query, not since the system's start: " << name;
    }
}

/// A network of two: kv0 is ours, kv1 and lo belong to a router in a namespace of its own, 192.0.2.1, which ends with
/// the test.
constexpr const char* routedFlags = "--net --mount --pid --fork --kill-child --mount-proc";
constexpr const char* routedNetwork =
    "ip link set lo up && ip link add kv0 type veth peer name kv1 && { unshare --net sleep 60 & } && router=$! && "
    "until [ $(readlink /proc/$router/ns/net) != $(readlink /proc/self/ns/net) ]; do sleep 0.05; done; "
    "ip link set kv1 netns $router && ip address add 192.0.2.77/24 dev kv0 && ip link set kv0 up && "
    "nsenter -t $router -n sh -c \"ip link set lo up && ip address add 192.0.2.1/24 dev kv1 && ip link set kv1 up && "
    "echo 1 > /proc/sys/net/ipv4/ip_forward && echo 0 > /proc/sys/net/ipv4/icmp_ratemask && ip route add unreachable "
    "203.0.113.0/25 && "
    "ip route add 198.51.100.0/24 via 192.0.2.77\" && "
    "ip route add 198.51.100.0/24 via 192.0.2.1 metric 7 && ip route add 203.0.113.0/24 via 192.0.2.1 proto bgp && "
    "ip route add blackhole 10.9.0.0/16 && ip route add 10.8.0.0/16 nexthop via 192.0.2.1 nexthop via 192.0.2.2 && "
    "ip route add 10.7.0.0/16 via inet6 fe80::1 dev kv0 && ip route add 10.6.0.0/16 dev kv0 table 77 && "
    "ip route add local 10.5.0.0/16 dev lo table main && ip route add broadcast 10.4.0.9 dev kv0 table main";

TEST_F(WmiNetwork, HasTheRoutesOfTheKernel) {
    if (!IsInNamespaces()) return RunInNamespaces(routedFlags, routedNetwork);
    using testing::UnorderedElementsAre;
    EXPECT_THAT(
        RowTexts("Description,Metric1,Type,Protocol FROM Win32_IP4RouteTable"),
        UnorderedElementsAre("192.0.2.0 - 255.255.255.0 - 0.0.0.0 0 3 2",  // direct, by the kernel
                             "198.51.100.0 - 255.255.255.0 - 192.0.2.1 7 4 3",
                             "203.0.113.0 - 255.255.255.0 - 192.0.2.1 0 4 14",  // by BGP
                             "10.9.0.0 - 255.255.0.0 - 0.0.0.0 0 1 3", "10.8.0.0 - 255.255.0.0 - 192.0.2.1 0 4 3",
                             "10.8.0.0 - 255.255.0.0 - 192.0.2.2 0 4 3", "10.7.0.0 - 255.255.0.0 - fe80::1 0 4 3",
                             "10.5.0.0 - 255.255.0.0 - 0.0.0.0 0 3 3", "10.4.0.9 - 255.255.255.255 - 0.0.0.0 0 3 3"));
    EXPECT_THAT(RowTexts("Destination,Mask,NextHop,InterfaceIndex FROM Win32_IP4RouteTable WHERE Type < 4"),
                UnorderedElementsAre(fmt::format("192.0.2.0 255.255.255.0 0.0.0.0 {}", if_nametoindex("kv0")),
                                     "10.9.0.0 255.255.0.0 0.0.0.0 NULL", "10.5.0.0 255.255.0.0 0.0.0.0 1",
                                     fmt::format("10.4.0.9 255.255.255.255 0.0.0.0 {}", if_nametoindex("kv0"))));
}

TEST_F(WmiNetwork, EchoesAreAnsweredOrRefused) {
    if (!IsInNamespaces()) return RunInNamespaces(routedFlags, routedNetwork);
    const std::pair<const char*, const char*> rows[] = {
        {"'192.0.2.1' AND BufferSize = 100 AND NoFragmentation = TRUE", "0 192.0.2.1 100 1000 64"},
        {"'192.0.2.1' AND BufferSize = 5000 AND TypeofService = 16", "0 192.0.2.1 5000 1000 64"},
        {"'192.0.2.1' AND BufferSize = 5000 AND NoFragmentation = TRUE", "11009  NULL 1000 NULL"},
        {"'203.0.113.5'", "11003 192.0.2.1 NULL 1000 NULL"},
        {"'198.51.100.9' AND TimeToLive = 1", "11013 192.0.2.1 NULL 1000 NULL"},
        {"'10.6.0.1'", "11002  NULL 1000 NULL"},
        {"'192.0.2.99' AND Timeout = 200", "11010  NULL 200 NULL"},
        {"'::1' AND Timeout = 3000", "0 ::1 32 3000 64"},
        {"'127.0.0.1' AND TimeToLive = 0", "11007  NULL 1000 NULL"},
        {"'127.0.0.1' AND BufferSize = 4294967295", "11009  NULL 1000 NULL"},
        {"'127.0.0.1' AND RecordRoute = 1", "11007  NULL 1000 NULL"},
    };
    for (const char* group : {"1 0", "0 0"}) {  // a socket for all of ICMP, and one for echoes alone
        std::ofstream("/proc/sys/net/ipv4/ping_group_range") << group;
        for (const auto& [where, texts] : rows) {
            const std::string from =
                "StatusCode,ProtocolAddress,ReplySize,Timeout,ResponseTimeToLive FROM Win32_PingStatus WHERE Address "
                "= ";
            EXPECT_EQ(TextsOf(from + where), texts) << where << group;
        }
    }
}

TEST_F(WmiNetwork, EchoesOfOneQueryAreSentAtOnceAndNamesAreNotWaitedForLonger) {
    const std::string hosts = (fs::temp_directory_path() / "kv-resolver").string();
    if (!IsInNamespaces()) {
        std::ofstream(hosts) << "nameserver 192.0.2.98\noptions timeout:30\n";
        RunInNamespaces(routedFlags, std::string(routedNetwork) + " && mount --bind " + hosts + " /etc/resolv.conf");
        fs::remove(hosts);
        return;
    }
    const auto start = steady_clock::now();
    const std::vector<std::string> several = RowTexts(
        "Address,PrimaryAddressResolutionStatus,StatusCode,ProtocolAddressResolved FROM Win32_PingStatus WHERE "
        "(Address = "
        "'a.example' OR Address = 'b.example' OR Address = '192.0.2.97' OR Address = '192.0.2.96' OR Address = "
        "'localhost') AND Timeout = 400 AND ResolveAddressNames = TRUE");
    EXPECT_LT(steady_clock::now() - start, 10s) << "five would take the name server 150 seconds";
    EXPECT_THAT(several,
                testing::UnorderedElementsAre("a.example 11002 NULL ", "b.example 11002 NULL ", "192.0.2.97 0 11010 ",
                                              "192.0.2.96 0 11010 ", "localhost 0 0 localhost"));
    EXPECT_EQ(
        TextsOf("Address,BufferSize,StatusCode FROM Win32_PingStatus WHERE Address = '127.0.0.1' AND BufferSize = "
                "100 OR Address = '127.0.0.2' AND Timeout < 2000 OR Address = '127.0.0.1' AND BufferSize = 100 AND "
                "Timeout = 1000"),
        "127.0.0.1 100 0\n127.0.0.2 32 0")
        << "each with its own options, once";
    std::string many = "SELECT * FROM Win32_PingStatus WHERE Address = '127.0.0.1'";
    for (int at = 0; at < 100; ++at) many += fmt::format(" OR Address = '127.0.1.{}'", at);
    EXPECT_EQ(RunWmiQuery(many).status, wmi_status::quotaViolation);
    for (const char* where : {"", " WHERE Timeout = 5", " WHERE Address LIKE '127.0.0.1'"}) {
        const WmiResult refused = RunWmiQuery(std::string("SELECT * FROM Win32_PingStatus") + where);
        EXPECT_EQ(refused.status, wmi_status::invalidQuery) << where;
        EXPECT_EQ(refused.notices.size(), 1u) << where;
    }
    ASSERT_EQ(setgid(65534), 0);  // outside the group range, and without the right to raw sockets
    ASSERT_EQ(setuid(65534), 0);
    EXPECT_EQ(RunWmiQuery("SELECT * FROM Win32_PingStatus WHERE Address = '127.0.0.1'").status,
              wmi_status::accessDenied);
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
        const auto end = wql::MicrosecondsOfDmtf(platform::WideFromUtf8(TextsOf("DHCPLeaseExpires" + configuration)));
        const auto now = std::chrono::system_clock::now().time_since_epoch() / 1us;
        EXPECT_NEAR(static_cast<double>(end.value_or(0) - now), 600e6, 30e6);
    }
}

/// From now on this process gets no netlink sockets, and no memory for what arrives on others.
void RefuseNetlinkAndMessages() {
    constexpr auto load = [](std::size_t at) {
        return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(at));
    };
    constexpr auto skipUnless = [](std::uint32_t value, std::uint8_t count) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, count);
    };
    constexpr auto end = [](std::uint32_t result) { return sock_filter BPF_STMT(BPF_RET | BPF_K, result); };
    sock_filter steps[] = {
        load(offsetof(seccomp_data, nr)),   skipUnless(SYS_recvmsg, 1),
        end(SECCOMP_RET_ERRNO | ENOMEM),    skipUnless(SYS_socket, 3),
        load(offsetof(seccomp_data, args)), skipUnless(AF_NETLINK, 1),
        end(SECCOMP_RET_ERRNO | EACCES),    end(SECCOMP_RET_ALLOW),
    };
    sock_fprog program{std::size(steps), steps};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST_F(WmiNetwork, SaysWhatTheKernelRefusesAndGivesTheRest) {
    if (!IsInNamespaces()) return RunInNamespaces("--net", "ip link set lo up && ip link add kv0 type veth");
    RefuseNetlinkAndMessages();
    const std::pair<std::string, const char*> rows[] = {
        {"ConnectionsEstablished,ConnectionsActive FROM Win32_PerfRawData_Tcpip_TCPv4", "NULL 0"},
        {"* FROM Win32_PerfRawData_Tcpip_TCPv6", "80041004"},
        {"OutputQueueLength,BytesTotalPersec FROM Win32_PerfRawData_Tcpip_NetworkAdapter WHERE Name = 'kv0'", "NULL 0"},
        {"* FROM Win32_IP4RouteTable", "80041004"},
        {"* FROM Win32_NetworkAdapterConfiguration", "80041004"},
    };
    for (const auto& [selected, texts] : rows) {
        EXPECT_EQ(TextsOf(selected), texts) << selected;
        EXPECT_EQ(RunWmiQuery("SELECT " + selected).notices.size(), 1u) << selected;
    }
    EXPECT_EQ(TextsOf("StatusCode FROM Win32_PingStatus WHERE Address = '127.0.0.1' AND Timeout = 300"), "11050")
        << "reading the answer fails, whether or not it is tried again";
}

struct WmiShares : FrozenFiles {
    static Gathered Shares() {
        return Over<wql::GatherShares>(u"Win32_Share", "Name Path Description Type AllowMaximum MaximumAllowed Status");
    }
};

TEST_F(WmiShares, AreThoseOfSambaAndNfs) {
    EXPECT_THAT(Shares().objects, testing::IsEmpty());
    Write(work / "etc/exports",
          "# none\n/srv/a 192.0.2.0/24(rw,sync) host.example(ro) # two\n/srv/b -ro \\\n  @group\n"
          "\"/srv/with blank\"\n/srv/oct\\040al *(rw)\n/srv/a (ro)\nnot a path\n");
    Write(work / "etc/exports.d/more.exports", "/srv/more");
    Write(work / "etc/exports.d/backup.old", "/srv/old");
    const auto nfs = [](const std::string& path, const std::string& hosts) {
        return path + "|" + path + "|" + hosts + "|0|true|NULL|OK|";
    };
    EXPECT_THAT(Shares().objects,
                testing::ElementsAre(nfs("/srv/a", "192.0.2.0/24 host.example *"), nfs("/srv/b", "@group"),
                                     nfs("/srv/with blank", "*"), nfs("/srv/oct al", "*"), nfs("/srv/more", "*")));
    Write(work / "var/lib/nfs/etab", "/srv/now\t192.0.2.7(rw,sync,wdelay,anonuid=65534)\n/srv/now\t192.0.2.8(ro)\n");
    Write(work / "var/lib/samba/usershares/mine",
          "#VERSION 2\npath=/home/me/out\ncomment=Mine = ours\n"
          "usershare_acl=S-1-1-0:R,\nguest_ok=n\nsharename=Mine\n");
    Write(work / "var/lib/samba/usershares/more", "#VERSION 1\npath=/a share of the file has the name\n");
    Write(work / "var/lib/samba/usershares/torn", "path=/x\nsharename=torn\n");
    EXPECT_THAT(Shares().objects, testing::ElementsAre(nfs("/srv/now", "192.0.2.7 192.0.2.8")))
        << "no Samba without its file";
    Write(work / "etc/samba/smb.conf",
          "; comment\n[global]\n workgroup = X\n max connections = 9\n[homes]\n comment = Homes\n"
          "[printers]\nprintable = yes\npath = /var/tmp\n[Data Store]\n PATH = /srv/da\\\nta\n"
          " Comment = All = data\nmax connections = 20\n; old \\\n[off]\npath = /off\navailable = No\n"
          "[Laser]\nprint ok = True\npath = /var/spool\nmax connections = 0\n[nowhere]\n"
          "[More]\npath = /srv/more\n[data store]\n directory = /srv/other\n");
    EXPECT_EQ(Shares().objects.size(), 4u) << "users have shares where Samba was built so";
    Write(work / "etc/os-release", "ID=mint\nID_LIKE=\"ubuntu debian\"\n");
    const Gathered all = Shares();
    EXPECT_THAT(all.objects, testing::ElementsAre("Data Store|/srv/other|All = data|0|false|20|OK|",
                                                  "Laser|/var/spool||1|true|NULL|OK|", "More|/srv/more||0|false|9|OK|",
                                                  "Mine|/home/me/out|Mine = ours|0|true|NULL|OK|",
                                                  nfs("/srv/now", "192.0.2.7 192.0.2.8")));
    EXPECT_THAT(all.notices, testing::ElementsAre(testing::HasSubstr("usershares: 2 files")));
    ASSERT_EQ(mkfifo((work / "var/lib/samba/usershares/a-pipe").c_str(), 0600), 0);
    Write(work / "var/lib/samba/usershares/long", "#VERSION 2\npath=/x\n" + std::string(11'000, '#'));
    fs::create_symlink("mine", work / "var/lib/samba/usershares/other");
    EXPECT_THAT(Shares().objects, all.objects);
    EXPECT_THAT(Shares().notices, testing::ElementsAre(testing::HasSubstr("usershares: 5 files")));
    Write(work / "etc/samba/smb.conf",
          "[global]\ninclude = /etc/samba/more.conf\nusershare max shares = 0\n[a]\npath = /a\n");
    fs::remove(work / "var/lib/nfs/etab");
    fs::create_directory(work / "var/lib/nfs/etab");  // cannot be read
    fs::remove_all(work / "etc/exports");
    fs::remove_all(work / "etc/exports.d");
    const Gathered partial = Shares();
    EXPECT_THAT(partial.objects, testing::ElementsAre("a|/a||0|true|NULL|OK|"));
    EXPECT_THAT(partial.notices, testing::ElementsAre(testing::HasSubstr("smb.conf"), testing::HasSubstr("etab")));
    fs::remove(work / "etc/samba/smb.conf");
    EXPECT_EQ(Shares().status, wmi_status::providerFailure);
    fs::remove(work / "var/lib/nfs/etab");
    EXPECT_EQ(Shares().status, wmi_status::ok);
}

}  // namespace
}  // namespace kv::test
