// Answers of the kernel over netlink, made here byte by byte and cut at each length; what ICMP messages report; files
// of shares.
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/gen_stats.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "facts/network/echo.h"
#include "facts/network/name_lookup.h"
#include "facts/network/netlink.h"
#include "facts/network/network_devices.h"
#include "facts/network/routes.h"
#include "facts/network/share_files.h"

namespace kv::test {
namespace {

using namespace facts;

/// A record, an attribute or a message, filled up to a multiple of four.
std::string Padded(std::string bytes) { return bytes.append((4 - bytes.size() % 4) % 4, '\0'); }

std::string Attribute(std::uint16_t type, const std::string& content) {
    rtattr header{};
    header.rta_len = static_cast<std::uint16_t>(sizeof(header) + content.size());
    header.rta_type = type;
    return Padded(std::string(BytesOf(header)) + content);
}

std::string Attribute(std::uint16_t type, std::uint32_t number) {
    return Attribute(type, std::string(BytesOf(number)));
}

std::string Message(std::uint16_t type, const std::string& content) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + content.size());
    header.nlmsg_type = type;
    return Padded(std::string(BytesOf(header)) + content);
}

std::string RouteMessage(std::uint8_t table, std::uint8_t length, const std::string& attributes) {
    rtmsg record{};
    record.rtm_family = AF_INET;
    record.rtm_table = table;
    record.rtm_dst_len = length;
    record.rtm_type = RTN_UNICAST;
    record.rtm_protocol = RTPROT_DHCP;
    return Message(RTM_NEWROUTE, std::string(BytesOf(record)) + attributes);
}

std::string Hop(int index, const std::string& attributes) {
    rtnexthop record{};
    record.rtnh_len = static_cast<std::uint16_t>(sizeof(record) + attributes.size());
    record.rtnh_ifindex = index;
    return std::string(BytesOf(record)) + attributes;
}

std::string RoutesIn(const std::string& messages) {
    Routes routes;
    AddRoutes(messages, routes);
    std::string text;
    for (const Route& route : routes.list) {
        text += route.destination + "/" + route.mask + " " + route.nextHop + " " +
                std::to_string(route.interfaceIndex) + " " + std::to_string(route.metric) + "\n";
    }
    return text;
}

TEST(NetworkMessages, RoutesOfTheMainTable) {
    const std::string network("\xC0\x00\x02\x00", 4);
    const std::string gateway("\xC0\x00\x02\x01", 4);
    const std::string via6 = std::string("\x0A\0\xFE\x80", 4) + std::string(13, '\0') + '\x01';
    const std::string messages =
        RouteMessage(RT_TABLE_MAIN, 0,
                     Attribute(RTA_GATEWAY, gateway) + Attribute(RTA_OIF, 4) + Attribute(RTA_PRIORITY, UINT32_MAX)) +
        RouteMessage(RT_TABLE_LOCAL, 32, Attribute(RTA_DST, gateway)) +
        RouteMessage(RT_TABLE_COMPAT, 32, Attribute(RTA_DST, gateway) + Attribute(RTA_TABLE, 1000)) +
        RouteMessage(
            RT_TABLE_MAIN, 25,
            Attribute(RTA_DST, network) + Attribute(RTA_MULTIPATH, Hop(7, Attribute(RTA_GATEWAY, gateway)) +
                                                                       Hop(8, Attribute(RTA_VIA, via6)) + "\x01"));
    const std::string first = "0.0.0.0/0.0.0.0 192.0.2.1 4 4294967295\n";
    EXPECT_EQ(RoutesIn(messages), first +
                                      "192.0.2.0/255.255.255.128 192.0.2.1 7 0\n"
                                      "192.0.2.0/255.255.255.128 fe80::1 8 0\n");
    for (std::size_t length = 0; length < messages.size(); ++length) {
        const std::string cut = messages.substr(0, length);  // on the heap, where a read beyond it is seen
        EXPECT_TRUE(RoutesIn(cut).empty() || RoutesIn(cut) == first) << length;
    }
}

TEST(NetworkMessages, RoutesBeyondTheMostAreCounted) {
    Routes routes;
    routes.list.resize(mostRoutes - 1);
    const std::string hops = Hop(1, "") + Hop(2, "") + Hop(3, "");
    AddRoutes(RouteMessage(RT_TABLE_MAIN, 0, Attribute(RTA_MULTIPATH, hops)), routes);
    EXPECT_EQ(std::pair(routes.list.size(), routes.leftOut), std::pair(mostRoutes, std::size_t{2}));
}

/// A message whose header has flags.
std::string Flagged(std::uint16_t type, std::uint16_t flags, int result) {
    std::string message = Message(type, std::string(BytesOf(result)));
    std::memcpy(message.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof(flags));
    return message;
}

TEST(NetworkMessages, EndOfAnAnswer) {
    const std::string route = RouteMessage(RT_TABLE_MAIN, 0, "");
    const struct {
        const char* title;
        std::string messages;
        bool isOver, isRefused, isChanging;
    } rows[] = {
        {"goes on", route + route, false, false, false},
        {"ends", route + Flagged(NLMSG_DONE, NLM_F_MULTI, 0) + "behind", true, false, false},
        {"ends with an error", Flagged(NLMSG_DONE, 0, -ENOBUFS), true, true, false},
        {"refused", Flagged(NLMSG_ERROR, 0, -EPERM), false, true, false},
        {"malformed", route + std::string(16, '\0'), false, true, false},
        {"changed in its midst", route + Flagged(RTM_NEWROUTE, NLM_F_DUMP_INTR, 0) + route, false, false, true},
        {"changed at its end", Flagged(NLMSG_DONE, NLM_F_DUMP_INTR, 0), true, false, true},
    };
    for (const auto& row : rows) {
        const NetlinkState state = StateAfter(row.messages);
        EXPECT_EQ(std::tuple(state.isOver, state.isRefused, state.isChanging),
                  std::tuple(row.isOver, row.isRefused, row.isChanging))
            << row.title;
    }
}

TEST(NameLookups, OneThatRunsOutOfMemoryIsNotReached) {
    using namespace std::chrono_literals;
    const auto lookUp = [](std::function<NameLookup()> how) {
        return NameLookupThread(std::move(how)).Wait(std::chrono::steady_clock::now() + 60s).error;
    };
    for (int count = 0; count < 300; ++count)  // more than may be under way
        ASSERT_EQ(lookUp([]() -> NameLookup { throw std::bad_alloc(); }), EAI_AGAIN);
    EXPECT_EQ(lookUp([] { return LookUpAddress("192.0.2.1", AI_NUMERICHOST); }), 0);
}

TEST(NetworkMessages, QueuesOfInterfaces) {
    const auto queue = [](int index, std::uint32_t parent, std::uint32_t packets) {
        tcmsg record{};
        record.tcm_ifindex = index;
        record.tcm_parent = parent;
        gnet_stats_queue length{};
        length.qlen = packets;
        const std::string statistics = Attribute(TCA_STATS_QUEUE, std::string(BytesOf(length)));
        return Message(RTM_NEWQDISC, std::string(BytesOf(record)) + Attribute(TCA_KIND, "fifo") +
                                         Attribute(TCA_STATS2 | NLA_F_NESTED, statistics));
    };
    const QueueLengths lengths = ParseQueueLengths(queue(1, TC_H_ROOT, 5) + queue(1, 0x10001, 3) +
                                                   queue(2, TC_H_INGRESS, 9) + queue(3, TC_H_ROOT, 0));
    EXPECT_EQ(lengths, (QueueLengths{{1, 5}, {3, 0}}));
}

TEST(NetworkMessages, OutcomesOfIcmp) {
    using enum EchoOutcome;
    const std::tuple<bool, int, int, EchoOutcome> rows[] = {
        {true, 3, 0, networkUnreachable},  {true, 3, 1, hostUnreachable},  {true, 3, 2, protocolUnreachable},
        {true, 3, 3, portUnreachable},     {true, 3, 4, tooBig},           {true, 3, 6, networkUnreachable},
        {true, 3, 13, hostUnreachable},    {true, 4, 0, slowDown},         {true, 5, 0, failed},
        {true, 11, 0, transitExpired},     {true, 11, 1, assemblyExpired}, {true, 12, 0, headerRefused},
        {false, 1, 0, networkUnreachable}, {false, 1, 1, hostUnreachable}, {false, 1, 3, hostUnreachable},
        {false, 1, 4, portUnreachable},    {false, 2, 0, tooBig},          {false, 3, 0, transitExpired},
        {false, 3, 1, assemblyExpired},    {false, 4, 1, headerRefused},   {false, 200, 0, failed},
    };
    for (const auto& [isVersion4, type, code, outcome] : rows) {
        EXPECT_EQ(OutcomeOfMessage(isVersion4, static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(code)),
                  outcome)
            << isVersion4 << ' ' << type << ' ' << code;
    }
}

TEST(NetworkMessages, FilesOfSharesInOddForms) {
    const std::pair<const char*, const char*> exports[] = {
        {"/a\\04", "/a\\04"}, {"/a\\777 x", "/a\\777"},   {"\"/open quote x", "/open quote x"},
        {"/end \\", "/end"},  {"\\\n\\\n/late", "/late"},
    };
    for (const auto& [text, path] : exports) {
        EXPECT_EQ(ParseExports(text).at(0).path, path) << text;
    }
    for (const char* text : {"", "\\", "\n\n", "a b", "\"\""}) EXPECT_TRUE(ParseExports(text).empty()) << text;
    for (const char* text :
         {"", "[", "[x", "[x]", "=", "path=/above any section", "[x]\npath=", "[x]\npath=\\", "[ ]\npath=/a"})
        EXPECT_TRUE(ParseSambaConfig(text).shares.empty()) << text;
    std::string many;
    for (int at = 0; at < 100'000; ++at) many += fmt::format("[{0}]\npath=/\n/{0}\n", at);
    EXPECT_EQ(ParseSambaConfig(many).shares.size() + ParseExports(many).size(), 200'000u);
    for (const char* text : {"config backend = registry", "[x]\ncopy = y", "[global]\nregistry shares = Yes"})
        EXPECT_TRUE(ParseSambaConfig(text).isPartial) << text;
    for (const char* text : {"", "#VERSION 2", "#VERSION 2\npath=\n", "path=/a"})
        EXPECT_FALSE(ParseUserShare(text)) << text;
}

}  // namespace
}  // namespace kv::test
