// Win32_IP4RouteTable: the routes of the main table.
#include "facts/network/routes.h"

#include <algorithm>
#include <fmt/format.h>
#include <linux/rtnetlink.h>

#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

using Row = facts::Route;

/// Windows writes no gateway as 0.0.0.0.
std::string NextHopOf(const Row& row) { return row.nextHop.empty() ? "0.0.0.0" : row.nextHop; }

std::string DescriptionOf(const Row& row) { return row.destination + " - " + row.mask + " - " + NextHopOf(row); }

std::uint32_t TypeOf(const Row& row) {
    constexpr std::uint32_t other = 1;
    constexpr std::uint32_t direct = 3;
    constexpr std::uint32_t indirect = 4;
    constexpr std::uint8_t delivering[] = {RTN_UNICAST, RTN_LOCAL, RTN_BROADCAST, RTN_ANYCAST, RTN_MULTICAST};
    if (std::ranges::find(delivering, row.type) == std::end(delivering)) return other;
    return row.nextHop.empty() ? direct : indirect;
}

/// Who set the route, by the numbers of Windows.
std::uint32_t ProtocolOf(const Row& row) {
    constexpr std::uint32_t other = 1;
    constexpr struct {
        std::uint8_t setter;
        std::uint32_t number;
    } known[] = {
        {RTPROT_KERNEL, 2}, {RTPROT_BOOT, 3}, {RTPROT_STATIC, 3}, {RTPROT_REDIRECT, 4}, {RTPROT_RA, 4},
        {RTPROT_RIP, 8},    {RTPROT_ISIS, 9}, {RTPROT_OSPF, 13},  {RTPROT_BGP, 14},
    };
    const auto* found =
        std::ranges::find_if(known, [&](const auto& protocol) { return protocol.setter == row.protocol; });
    return found != std::end(known) ? found->number : other;
}

CimValue InterfaceOf(const Row& row) { return row.interfaceIndex != 0 ? CimValue(row.interfaceIndex) : CimValue(); }

constexpr auto unused = [](const Row&) { return -1; };
constexpr auto destinationIn = [](const Row& row) { return row.destination; };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Age", uint32},
    {u"Caption", string, 0, "as Destination", destinationIn},
    {u"Description", string, 0, "Destination, Mask and NextHop", [](const Row& row) { return DescriptionOf(row); }},
    {u"Destination", string, 0, "address of the network; 0.0.0.0 of the default route", destinationIn},
    {u"Information", string, 0, "always 0.0: nothing more is known of the protocol", [](const Row&) { return u"0.0"; }},
    {u"InstallDate", datetime},
    {u"InterfaceIndex", sint32, 0, "the kernel's number for the interface; NULL for a route that refuses packets", [](const Row& row) { return InterfaceOf(row); }},
    {u"Mask", string, 0, "of the network, such as 255.255.255.0", [](const Row& row) { return row.mask; }},
    {u"Metric1", sint32, 0, "the lower the better; 0 if none is set", [](const Row& row) { return row.metric; }},
    {u"Metric2", sint32, 0, "always -1: not used", unused},
    {u"Metric3", sint32, 0, "always -1: not used", unused},
    {u"Metric4", sint32, 0, "always -1: not used", unused},
    {u"Metric5", sint32, 0, "always -1: not used", unused},
    {u"Name", string, 0, "as Destination", destinationIn},
    {u"NextHop", string, 0, "the gateway; 0.0.0.0 of a direct route", [](const Row& row) { return NextHopOf(row); }},
    {u"Protocol", uint32, 0, "who set it: 2 the kernel, 3 an administrator, 4 ICMP, 8 RIP, 9 IS-IS, 13 OSPF, 14 BGP, 1 another, DHCP too",
        [](const Row& row) { return ProtocolOf(row); }},
    {u"Status", string},
    {u"Type", uint32, 0, "3 direct or to this computer itself, 4 by a gateway, 1 one that refuses or drops packets", [](const Row& row) { return TypeOf(row); }},
};
// clang-format on

WmiStatus GatherRoutes(const Gathering& gathering) {
    const std::optional<facts::Routes> routes = facts::ReadRoutes();
    if (!routes) {
        gathering.notice("Routes were left out: the kernel does not list them");
        return wmi_status::providerFailure;
    }
    if (routes->leftOut != 0)
        gathering.notice(fmt::format("{} routes were left out: there are too many", routes->leftOut));
    if (routes->isChanging)
        gathering.notice("Routes may be missing, or be there twice: they changed while they were read");
    for (const Row& row : routes->list) {
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_IP4RouteTable", u"CIM_LogicalElement", properties, GatherRoutes,
     u"Destination,InterfaceIndex,Mask,NextHop", "IPv4 routes of the main table"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
