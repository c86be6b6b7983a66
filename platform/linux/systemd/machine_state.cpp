#include "platform/linux/systemd/machine_state.h"

#include <algorithm>
#include <cstring>

#include "platform/linux/systemd/bus_message.h"
#include "platform/linux/systemd/system_bus.h"

namespace platform::systemd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* loginName = "org.freedesktop.login1";
constexpr const char* loginPath = "/org/freedesktop/login1";
constexpr const char* loginInterface = "org.freedesktop.login1.Manager";

/// Asks for a property of a known basic type, and starts no service for it. Texts live as long as the answer.
int GetProperty(sd_bus* bus, const char* name, const char* path, const char* interface, const char* property,
                const char* type, Message& answer, void* value) {
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(bus, &made, name, path, "org.freedesktop.DBus.Properties", "Get");
    const Message call(made);
    if (result >= 0) result = sd_bus_message_set_auto_start(made, 0);
    if (result >= 0) result = sd_bus_message_append(made, "ss", interface, property);
    if (result >= 0) result = Send(bus, call, answer);
    if (result >= 0) result = sd_bus_message_enter_container(answer.get(), SD_BUS_TYPE_VARIANT, type);
    return result < 0 ? result : sd_bus_message_read_basic(answer.get(), *type, value);
}

/// What is left until a moment; at least a millisecond, in which an answer that is there already counts.
std::chrono::milliseconds LeftUntil(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return std::max(left, std::chrono::milliseconds(1));
}

int AskManager(sd_bus* bus, bool& isGoingDown) {
    Message answer;
    const char* state = nullptr;
    const int result = GetProperty(bus, managerName, managerPath, managerInterface, "SystemState", "s", answer, &state);
    if (result >= 0) isGoingDown = std::strcmp(state, "stopping") == 0;
    return result;
}

int AskLogin(sd_bus* bus, bool& isGoingDown) {
    Message answer;
    int prepares = 0;
    const int result =
        GetProperty(bus, loginName, loginPath, loginInterface, "PreparingForShutdown", "b", answer, &prepares);
    if (result >= 0) isGoingDown = prepares != 0;
    return result;
}

using Open = int (*)(std::chrono::milliseconds patience, BusConnection& bus);
using Ask = int (*)(sd_bus* bus, bool& isGoingDown);

/// True when there was an answer before the end.
bool GetAnswer(Open open, Ask ask, Clock::time_point end, bool& isGoingDown) {
    BusConnection bus;
    if (open(LeftUntil(end), bus) < 0) return false;
    const std::chrono::microseconds left = LeftUntil(end);
    sd_bus_set_method_call_timeout(bus.get(), static_cast<std::uint64_t>(left.count()));
    return ask(bus.get(), isGoingDown) >= 0;
}

}  // namespace

bool IsMachineGoingDown(std::chrono::milliseconds patience) {
    const Clock::time_point start = Clock::now();
    bool isGoingDown = false;
    // The last one asked has at least half of the time. No answer means that the machine is not known to go down.
    static_cast<void>(GetAnswer(OpenManagerBus, AskManager, start + patience / 2, isGoingDown) ||
                      GetAnswer(OpenSystemBus, AskLogin, start + patience, isGoingDown));
    return isGoingDown;
}

}  // namespace platform::systemd
