// Tcpip_TCPv4 and Tcpip_TCPv6, from /proc/net/snmp and the list of connections. The kernel counts segments, and
// connections that came and went, of both families in one. Those counts are in TCPv4 only, so that a sum over both
// classes is right.
#include "facts/system_text.h"
#include "facts/tcp_connections.h"
#include "wql/class_tree.h"
#include "wql/classes/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { counts = 1, connections = 2 };
};

struct Row {
    facts::TcpCounts counts;
    facts::EstablishedConnections established;
};

// clang-format off
constexpr CounterInfo counters4[] = {
    {u"ConnectionFailures", uint32, value, Need::counts, "AttemptFails, IPv4 and IPv6", [](const Row& row) { return row.counts.failures; }},
    {u"ConnectionsActive", uint32, value, Need::counts, "ActiveOpens, IPv4 and IPv6", [](const Row& row) { return row.counts.activeOpens; }},
    {u"ConnectionsEstablished", uint32, value, Need::connections, "established or closed by the other side only, IPv4", [](const Row& row) { return row.established.version4; }},
    {u"ConnectionsPassive", uint32, value, Need::counts, "PassiveOpens, IPv4 and IPv6", [](const Row& row) { return row.counts.passiveOpens; }},
    {u"ConnectionsReset", uint32, value, Need::counts, "EstabResets, IPv4 and IPv6", [](const Row& row) { return row.counts.resets; }},
    {u"SegmentsPersec", uint32, rate, Need::counts, "InSegs and OutSegs, IPv4 and IPv6", [](const Row& row) { return row.counts.received + row.counts.sent; }},
    {u"SegmentsReceivedPersec", uint32, rate, Need::counts, "InSegs, IPv4 and IPv6", [](const Row& row) { return row.counts.received; }},
    {u"SegmentsRetransmittedPersec", uint32, rate, Need::counts, "RetransSegs, IPv4 and IPv6", [](const Row& row) { return row.counts.sentAgain; }},
    {u"SegmentsSentPersec", uint32, rate, Need::counts, "OutSegs, IPv4 and IPv6; not those sent again", [](const Row& row) { return row.counts.sent; }},
};

constexpr CounterInfo counters6[] = {
    {u"ConnectionFailures", uint32},
    {u"ConnectionsActive", uint32},
    {u"ConnectionsEstablished", uint32, value, Need::connections, "established or closed by the other side only, IPv6", [](const Row& row) { return row.established.version6; }},
    {u"ConnectionsPassive", uint32},
    {u"ConnectionsReset", uint32},
    {u"SegmentsPersec", uint32, rate},
    {u"SegmentsReceivedPersec", uint32, rate},
    {u"SegmentsRetransmittedPersec", uint32, rate},
    {u"SegmentsSentPersec", uint32, rate},
};
// clang-format on

WmiStatus ReadTcp(const Gathering& gathering, PerfSampling& sampling) {
    Row row;
    if (gathering.asksFor(Need::counts)) {
        const std::optional<std::string> text = platform::ReadSystemFile("/proc/net/snmp");
        const std::optional<facts::TcpCounts> counts = text ? facts::ParseTcpCounts(*text) : std::nullopt;
        if (!counts) return wmi_status::providerFailure;
        row.counts = *counts;
    }
    const std::uint64_t now = TimeSinceStart();
    if (gathering.asksFor(Need::connections)) {
        const std::optional<facts::EstablishedConnections> established = facts::ReadEstablishedConnections();
        if (!established) return wmi_status::providerFailure;
        row.established = *established;
    }
    sampling.Add({}, &row, now);
    return wmi_status::ok;
}

constexpr PerfClass version4{.name = u"Tcpip_TCPv4", .counters = counters4, .read = ReadTcp, .isSingle = true};
constexpr PerfClass version6{.name = u"Tcpip_TCPv6", .counters = counters6, .read = ReadTcp, .isSingle = true};

const ClassFamily family(DeclarePerfClasses<version4, version6>);

}  // namespace

}  // namespace kv::wql
