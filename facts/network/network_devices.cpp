#include "facts/network/network_devices.h"

#include <algorithm>
#include <filesystem>
#include <linux/gen_stats.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include "facts/hardware/devices.h"
#include "facts/network/netlink.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

std::string FolderOf(const std::string& name) { return "/sys/class/net/" + name; }

/// Absent when the name is not that of an interface, or no longer is.
std::optional<NetworkInterface> ReadInterface(std::string name) {
    const std::string folder = FolderOf(name);
    const std::optional<std::uint64_t> index = ReadSystemNumber(folder + "/ifindex");
    const std::optional<std::uint64_t> linkType = ReadSystemNumber(folder + "/type");
    if (!index || !linkType) return std::nullopt;
    const std::uint64_t flags = HexNumberOf(ReadSystemLine(folder + "/flags").value_or("0")).value_or(0);
    return NetworkInterface{std::move(name), static_cast<std::uint32_t>(*index), static_cast<std::uint32_t>(*linkType),
                            (flags & IFF_UP) != 0};
}

}  // namespace

std::vector<InterfaceCounters> ParseNetDev(std::string_view text) {
    std::vector<InterfaceCounters> interfaces;
    for (std::string_view line; TakeLine(text, line);) {
        const std::size_t colon = line.find(':');  // the counters may follow it without a blank
        if (colon == line.npos) continue;
        InterfaceCounters counters;
        counters.name = Trimmed(line.substr(0, colon));
        line.remove_prefix(colon + 1);
        std::uint64_t unused = 0;
        bool isWhole = true;
        for (std::uint64_t* figure :
             {&counters.receivedBytes, &counters.receivedPackets, &counters.receiveErrors, &counters.receiveDropped,
              &unused, &unused, &unused, &counters.receivedMulticast, &counters.sentBytes, &counters.sentPackets,
              &counters.sendErrors, &counters.sendDropped}) {
            const std::optional<std::uint64_t> number = NumberOf(TakeField(line));
            isWhole = isWhole && number;
            *figure = number.value_or(0);
        }
        if (isWhole) interfaces.push_back(std::move(counters));
    }
    return interfaces;
}

std::optional<std::vector<NetworkInterface>> ListNetworkInterfaces() {
    std::vector<NetworkInterface> interfaces;
    std::error_code failure;
    for (fs::directory_iterator at("/sys/class/net", failure), end; !failure && at != end; at.increment(failure)) {
        std::optional<NetworkInterface> interface = ReadInterface(at->path().filename().string());
        if (interface && interface->linkType != ARPHRD_LOOPBACK) interfaces.push_back(std::move(*interface));
    }
    if (failure) return std::nullopt;
    std::sort(interfaces.begin(), interfaces.end(),
              [](const NetworkInterface& left, const NetworkInterface& right) { return left.index < right.index; });
    return interfaces;
}

InterfaceDevice ReadInterfaceDevice(const NetworkInterface& interface) {
    const std::string folder = FolderOf(interface.name);
    InterfaceDevice device;
    device.place = PlaceOfDevice(folder + "/device");
    device.driver = DriverOf(folder + "/device");
    DeviceNames names = NamesInUdev(
        platform::ReadSystemFile("/run/udev/data/n" + std::to_string(interface.index)).value_or(std::string()));
    device.vendor = std::move(names.vendor);
    device.product = std::move(names.product);
    if (device.product.empty()) device.product = device.driver;
    if (device.product.empty()) {
        device.product = ValueAfter("DEVTYPE=", platform::ReadSystemFile(folder + "/uevent").value_or(std::string()));
    }
    return device;
}

std::string_view ValueAfter(std::string_view key, std::string_view text) {
    for (std::string_view line; TakeLine(text, line);) {
        if (line.starts_with(key)) return line.substr(key.size());
    }
    return {};
}

std::optional<std::uint64_t> InterfaceSpeed(const std::string& name) {
    constexpr std::uint64_t bitsPerMegabit = 1'000'000;
    constexpr std::uint64_t unknown = UINT32_MAX;  // how older kernels write -1: without its sign
    const std::optional<std::uint64_t> megabits = ReadSystemNumber(FolderOf(name) + "/speed");
    if (!megabits || *megabits == 0 || *megabits == unknown) return std::nullopt;
    return *megabits * bitsPerMegabit;
}

namespace {

void AddQueueLengths(std::string_view messages, QueueLengths& queues) {
    ForEachMessage(messages, RTM_NEWQDISC, [&](std::string_view content) {
        const auto queue = RecordAt<tcmsg>(content);
        if (queue.tcm_parent != TC_H_ROOT) return;  // part of another queue, or of what comes in
        const std::string_view statistics = AttributeIn(Beyond(content, sizeof(tcmsg)), TCA_STATS2).value_or("");
        const std::string_view length = AttributeIn(statistics, TCA_STATS_QUEUE).value_or("");
        queues[static_cast<std::uint32_t>(queue.tcm_ifindex)] = RecordAt<gnet_stats_queue>(length).qlen;
    });
}

}  // namespace

QueueLengths ParseQueueLengths(std::string_view messages) {
    QueueLengths queues;
    AddQueueLengths(messages, queues);
    return queues;
}

std::optional<QueueLengths> ReadQueueLengths() {
    QueueLengths queues;
    const NetlinkTaker taker{[&] { queues.clear(); }, [&](auto messages) { AddQueueLengths(messages, queues); }};
    const NetlinkAnswer answer = DumpOverNetlink(NETLINK_ROUTE, RTM_GETQDISC, BytesOf(tcmsg{}), taker);
    if (answer == NetlinkAnswer::none) return std::nullopt;
    return queues;
}

std::uint32_t QueueLengthOf(const QueueLengths& queues, const std::string& name) {
    const auto found = queues.find(if_nametoindex(name.c_str()));
    return found != queues.end() ? found->second : 0;
}

}  // namespace kv::facts
