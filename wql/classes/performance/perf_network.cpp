// Tcpip_NetworkInterface and Tcpip_NetworkAdapter, from /proc/net/dev. On Windows the one has what IP is bound to and
// the other all adapters. Here both have all interfaces but the loopback, which Windows leaves out too: IP comes and
// goes on an interface, and its counters stay.
#include <algorithm>
#include <net/if.h>

#include "facts/network/network_devices.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { counters = 1, speed = 2, queue = 4 };
};

struct Row {
    facts::InterfaceCounters counters;
    std::optional<std::uint64_t> speed;
    std::optional<std::uint64_t> queued;  // packets
};

// clang-format off
constexpr CounterInfo counters[] = {
    {u"BytesReceivedPersec", uint64, rate, Need::counters, "bytes", [](const Row& row) { return row.counters.receivedBytes; }},
    {u"BytesSentPersec", uint64, rate, Need::counters, "bytes", [](const Row& row) { return row.counters.sentBytes; }},
    {u"BytesTotalPersec", uint64, rate, Need::counters, "bytes",
        [](const Row& row) { return row.counters.receivedBytes + row.counters.sentBytes; }},
    {u"CurrentBandwidth", uint64, value, Need::speed, "bits per second, the interface's speed", [](const Row& row) { return row.speed; }},
    {u"OffloadedConnections", uint64, value, 0, "always 0: Linux leaves no connection to an adapter", [](const Row&) { return 0; }},
    {u"OutputQueueLength", uint64, value, Need::queue, "packets that wait in its queue, as tc shows it", [](const Row& row) { return row.queued; }},
    {u"PacketsOutboundDiscarded", uint64, value, Need::counters, "drop", [](const Row& row) { return row.counters.sendDropped; }},
    {u"PacketsOutboundErrors", uint64, value, Need::counters, "errs", [](const Row& row) { return row.counters.sendErrors; }},
    {u"PacketsPersec", uint64, rate, Need::counters, "packets",
        [](const Row& row) { return row.counters.receivedPackets + row.counters.sentPackets; }},
    {u"PacketsReceivedDiscarded", uint64, value, Need::counters, "drop", [](const Row& row) { return row.counters.receiveDropped; }},
    {u"PacketsReceivedErrors", uint64, value, Need::counters, "errs", [](const Row& row) { return row.counters.receiveErrors; }},
    {u"PacketsReceivedNonUnicastPersec", uint64, rate, Need::counters, "multicast", [](const Row& row) { return row.counters.receivedMulticast; }},
    {u"PacketsReceivedPersec", uint64, rate, Need::counters, "packets", [](const Row& row) { return row.counters.receivedPackets; }},
    {u"PacketsReceivedUnicastPersec", uint64, rate, Need::counters, "packets minus multicast",
        [](const Row& row) { return row.counters.receivedPackets - std::min(row.counters.receivedPackets, row.counters.receivedMulticast); }},
    {u"PacketsReceivedUnknown", uint64},
    {u"PacketsSentNonUnicastPersec", uint64, rate},
    {u"PacketsSentPersec", uint64, rate, Need::counters, "packets", [](const Row& row) { return row.counters.sentPackets; }},
    {u"PacketsSentUnicastPersec", uint64, rate},
    {u"TCPActiveRSCConnections", uint64},
    {u"TCPRSCAveragePacketSize", uint64},
    {u"TCPRSCCoalescedPacketsPersec", uint64, rate},
    {u"TCPRSCExceptionsPersec", uint64, rate},
};
// clang-format on

WmiStatus ReadInterfaces(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/net/dev");
    if (!text) return FailedFile("/proc/net/dev", "Network interfaces", gathering);
    const std::uint64_t now = TimeSinceStart();
    std::optional<facts::QueueLengths> queues;
    if (gathering.asksFor(Need::queue)) {
        std::optional<facts::QueueLengths> read = facts::ReadQueueLengths();
        if (!read) gathering.notice("OutputQueueLength was left out: the kernel does not list queues");
        queues = std::move(read);
    }
    for (const facts::InterfaceCounters& counted : facts::ParseNetDev(*text)) {
        if (counted.name == "lo") continue;
        Row row{counted, {}, {}};
        if (gathering.asksFor(Need::speed)) row.speed = facts::InterfaceSpeed(counted.name);
        if (queues) row.queued = facts::QueueLengthOf(*queues, counted.name);
        PerfObject object;
        object.name = counted.name;
        // Names are used again and change; the kernel's number does not.
        const unsigned index = if_nametoindex(counted.name.c_str());
        object.key = index != 0 ? std::to_string(index) : counted.name;
        object.isBirthKnown = false;
        sampling.Add(std::move(object), &row, now);
    }
    return wmi_status::ok;
}

constexpr PerfClass interfaces{.name = u"Tcpip_NetworkInterface",
                               .meaning = "traffic of each network interface",
                               .counters = counters,
                               .read = ReadInterfaces};
constexpr PerfClass adapters{.name = u"Tcpip_NetworkAdapter",
                             .meaning = "traffic of each network interface",
                             .counters = counters,
                             .read = ReadInterfaces};

const ClassFamily family(DeclarePerfClasses<interfaces, adapters>);

}  // namespace

}  // namespace kv::wql
