#include "platform/posix/wmi_classes/network_devices.h"

#include <algorithm>

#include "platform/posix/wmi/system_text.h"

namespace platform::wmi {

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

std::optional<std::uint64_t> InterfaceSpeed(const std::string& name) {
    constexpr std::uint64_t bitsOfMegabit = 1'000'000;
    const std::optional<std::uint64_t> megabits = ReadSystemNumber("/sys/class/net/" + name + "/speed");
    if (!megabits || *megabits == 0) return std::nullopt;
    return *megabits * bitsOfMegabit;
}

}  // namespace platform::wmi
