// TCP, queues of adapters, routes, echoes and shares, as ss, nstat, tc, ip and ping see them. Each test that needs its
// own network runs again in a namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "platform/linux/descriptor.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"

namespace kv::test {
namespace {

namespace wmi_status = platform::wmi_status;
using platform::Descriptor;
using WmiNetwork = WmiTest;

WmiRow OnlyRow(const std::string& query) {
    const WmiResult result = RunWmiQuery(query);
    EXPECT_EQ(result.status, wmi_status::ok) << query;
    EXPECT_EQ(result.rows.size(), 1u) << query;
    return result.rows.empty() ? WmiRow() : result.rows.front();
}

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

std::map<std::string, std::uint64_t> CountedByNstat() {
    std::map<std::string, std::uint64_t> counted;
    std::istringstream lines(Shell("nstat -asz | grep ^Tcp"));
    for (std::string name, number, rate; lines >> name >> number >> rate;) counted[name] = std::stoull(number);
    return counted;
}

TEST_F(WmiNetwork, CountsTcpAsNstatAndSsDo) {
    if (!IsInNamespaces()) return RunInNamespaces("--net", "ip link set lo up");
    const std::vector<Descriptor> connections[] = {Connect("::1"), Connect("::1"), Connect("::ffff:127.0.0.1")};
    shutdown(connections[0][0].get(), SHUT_WR);  // the other end is still counted
    std::map<std::string, std::uint64_t> counted = CountedByNstat();
    WmiRow raw;
    for (int attempt = 0; attempt < 50; ++attempt) {  // an answer may still be on its way
        raw = OnlyRow("SELECT * FROM Win32_PerfRawData_Tcpip_TCPv4");
        if (counted == CountedByNstat()) break;
        counted = CountedByNstat();
    }
    const std::pair<const char*, std::uint64_t> rows[] = {
        {"ConnectionFailures", counted["TcpAttemptFails"]},
        {"ConnectionsActive", counted["TcpActiveOpens"]},
        {"ConnectionsPassive", counted["TcpPassiveOpens"]},
        {"ConnectionsReset", counted["TcpEstabResets"]},
        {"SegmentsPersec", counted["TcpInSegs"] + counted["TcpOutSegs"]},
        {"SegmentsReceivedPersec", counted["TcpInSegs"]},
        {"SegmentsRetransmittedPersec", counted["TcpRetransSegs"]},
        {"SegmentsSentPersec", counted["TcpOutSegs"]},
    };
    EXPECT_EQ(counted["TcpActiveOpens"], 3u);
    for (const auto& [name, number] : rows) EXPECT_EQ(PropertyText(raw, name), std::to_string(number)) << name;

    const std::string ss = "ss -Htn state established state close-wait dst ";
    for (const auto& [version, address] : {std::pair("v4", "127.0.0.1"), {"v6", "[::1]"}}) {
        const std::string from = std::string("SELECT * FROM Win32_PerfFormattedData_Tcpip_TCP") + version;
        EXPECT_EQ(PropertyText(OnlyRow(from), "ConnectionsEstablished"), Shell(ss + address + " | wc -l")) << version;
    }
    EXPECT_EQ(PropertyText(OnlyRow("SELECT * FROM Win32_PerfRawData_Tcpip_TCPv6"), "SegmentsPersec"), "NULL");
}

TEST_F(WmiNetwork, HasTheQueuesThatTcShows) {
    if (!IsInNamespaces()) {
        return RunInNamespaces("--net",
                               "ip link add kv0 type veth peer name kv1 && ip address add 192.0.2.77/24 dev kv0 && "
                               "ip link set kv1 up && ip link set kv0 up && ip link add kv2 type veth peer name kv3 && "
                               "ip neigh add 192.0.2.78 lladdr 02:00:00:00:0a:0b dev kv0 && "
                               "tc qdisc add dev kv0 root tbf rate 8bit burst 1540 limit 100000");
    }
    const Descriptor datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{AF_INET, htons(9), {inet_addr("192.0.2.78")}, {}};
    const char load[1000] = {};
    for (int count = 0; count < 7; ++count)
        sendto(datagrams.get(), load, sizeof(load), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    const std::string queued = Shell("tc -s qdisc show dev kv0 | sed -n \"s/.*backlog [^ ]* \\([0-9]*\\)p.*/\\1/p\"");
    EXPECT_GT(std::atoi(queued.c_str()), 1);
    for (const char* name : {"NetworkAdapter", "NetworkInterface"}) {
        const std::string from = std::string("SELECT * FROM Win32_PerfFormattedData_Tcpip_") + name;
        const WmiRow row = OnlyRow(from + " WHERE Name = 'kv0'");
        EXPECT_EQ(PropertyTexts(row, "OutputQueueLength,OffloadedConnections"), queued + " 0") << name;
        for (const char* other : {"kv1", "kv2"}) {  // without a queue, and switched off
            const WmiRow idle = OnlyRow(fmt::format("{} WHERE Name = '{}'", from, other));
            EXPECT_EQ(PropertyText(idle, "OutputQueueLength"), "0") << name << other;
        }
    }
}

}  // namespace
}  // namespace kv::test
