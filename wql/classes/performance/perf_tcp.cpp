// Tcpip_TCPv4 and Tcpip_TCPv6, from /proc/net/snmp and the list of connections. The kernel counts segments, and
// connections that came and went, of both families in one. Those counts are in TCPv4 only, so that a sum over both
// classes is right.
#include "facts/network/tcp_connections.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { counts = 1, connections = 2 };
};

struct Row {
    std::optional<facts::TcpCounts> counts;
    std::optional<facts::EstablishedConnections> established;
};

using Number = std::optional<std::uint64_t>;

Number CountIn(const Row& row, std::uint64_t facts::TcpCounts::*count) {
    return row.counts ? Number((*row.counts).*count) : std::nullopt;
}

Number SegmentsIn(const Row& row) {
    return row.counts ? Number(row.counts->received + row.counts->sent) : std::nullopt;
}

Number EstablishedIn(const Row& row, std::uint32_t facts::EstablishedConnections::*count) {
    return row.established ? Number((*row.established).*count) : std::nullopt;
}

// clang-format off
constexpr CounterInfo counters4[] = {
    {u"ConnectionFailures", uint32, value, Need::counts, "AttemptFails, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::failures); }},
    {u"ConnectionsActive", uint32, value, Need::counts, "ActiveOpens, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::activeOpens); }},
    {u"ConnectionsEstablished", uint32, value, Need::connections, "established or closed by the other side only, IPv4", [](const Row& row) { return EstablishedIn(row, &facts::EstablishedConnections::version4); }},
    {u"ConnectionsPassive", uint32, value, Need::counts, "PassiveOpens, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::passiveOpens); }},
    {u"ConnectionsReset", uint32, value, Need::counts, "EstabResets, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::resets); }},
    {u"SegmentsPersec", uint32, rate, Need::counts, "InSegs and OutSegs, IPv4 and IPv6", [](const Row& row) { return SegmentsIn(row); }},
    {u"SegmentsReceivedPersec", uint32, rate, Need::counts, "InSegs, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::received); }},
    {u"SegmentsRetransmittedPersec", uint32, rate, Need::counts, "RetransSegs, IPv4 and IPv6", [](const Row& row) { return CountIn(row, &facts::TcpCounts::sentAgain); }},
    {u"SegmentsSentPersec", uint32, rate, Need::counts, "OutSegs, IPv4 and IPv6; not those sent again", [](const Row& row) { return CountIn(row, &facts::TcpCounts::sent); }},
};

constexpr CounterInfo counters6[] = {
    {u"ConnectionFailures", uint32},
    {u"ConnectionsActive", uint32},
    {u"ConnectionsEstablished", uint32, value, Need::connections, "established or closed by the other side only, IPv6", [](const Row& row) { return EstablishedIn(row, &facts::EstablishedConnections::version6); }},
    {u"ConnectionsPassive", uint32},
    {u"ConnectionsReset", uint32},
    {u"SegmentsPersec", uint32, rate},
    {u"SegmentsReceivedPersec", uint32, rate},
    {u"SegmentsRetransmittedPersec", uint32, rate},
    {u"SegmentsSentPersec", uint32, rate},
};
// clang-format on

WmiStatus ReadTcp(const Gathering& gathering, PerfSampling& sampling) {
    constexpr const char* path = "/proc/net/snmp";
    WmiStatus failure = wmi_status::ok;
    Row row;
    if (gathering.asksFor(Need::counts)) {
        row.counts = facts::ParseTcpCounts(platform::ReadSystemFile(path).value_or(""));
        if (!row.counts) failure = FailedFile(path, "Counters of connections and segments", gathering);
    }
    const std::uint64_t now = TimeSinceStart();
    if (gathering.asksFor(Need::connections)) {
        row.established = facts::ReadEstablishedConnections();
        if (!row.established) {
            gathering.notice("ConnectionsEstablished was left out: the kernel does not list connections");
            failure = wmi_status::providerFailure;
        }
    }
    if (IsFailure(failure) && !row.counts && !row.established) return failure;
    sampling.Add({}, &row, now);
    return wmi_status::ok;
}

constexpr PerfClass version4{.name = u"Tcpip_TCPv4",
                             .meaning = "TCP connections and segments",
                             .counters = counters4,
                             .read = ReadTcp,
                             .isSingle = true};
constexpr PerfClass version6{.name = u"Tcpip_TCPv6",
                             .meaning = "TCP connections over IPv6",
                             .counters = counters6,
                             .read = ReadTcp,
                             .isSingle = true};

const ClassFamily family(DeclarePerfClasses<version4, version6>);

}  // namespace

}  // namespace kv::wql
