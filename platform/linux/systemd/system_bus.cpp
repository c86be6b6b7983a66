#include "platform/linux/systemd/system_bus.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace platform::systemd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* managerSocket = "/run/systemd/private";
constexpr const char* managerAddress = "unix:path=/run/systemd/private";

std::uint64_t Microseconds(Clock::duration time) {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

/// Goes through authentication and greeting; sd-bus itself would wait for them much longer.
int WaitUntilReady(sd_bus* bus, Clock::time_point deadline) {
    for (;;) {
        const int ready = sd_bus_is_ready(bus);
        if (ready != 0) return ready;
        const int progress = sd_bus_process(bus, nullptr);
        if (progress < 0) return progress;
        if (progress > 0) continue;
        const Clock::duration left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) return -ETIMEDOUT;
        const int waited = sd_bus_wait(bus, Microseconds(left));
        if (waited < 0 && waited != -EINTR) return waited;
    }
}

/// Takes a new connection over and waits until it can carry calls.
int MakeReady(sd_bus* opened, std::chrono::milliseconds patience, Clock::time_point deadline, BusConnection& bus) {
    bus.reset(opened);
    sd_bus_set_method_call_timeout(opened, Microseconds(patience));
    const int result = WaitUntilReady(opened, deadline);
    // One that is still to be greeted would let the next call wait for that as long as sd-bus likes.
    if (result < 0) bus.reset();
    return result;
}

bool ReachesManagerDirectly() {
    return geteuid() == 0 && secure_getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr && access(managerSocket, F_OK) == 0;
}

/// There is no bus at the other end, and so nothing to register with.
int OpenManagerSocket(std::chrono::milliseconds patience, BusConnection& bus) {
    const Clock::time_point deadline = Clock::now() + patience;
    sd_bus* made = nullptr;
    int result = sd_bus_new(&made);
    if (result < 0) return result;
    BusConnection connection(made);
    result = sd_bus_set_address(made, managerAddress);
    if (result >= 0) result = sd_bus_start(made);
    return result < 0 ? result : MakeReady(connection.release(), patience, deadline, bus);
}

}  // namespace

int OpenSystemBus(std::chrono::milliseconds patience, BusConnection& bus) {
    const Clock::time_point deadline = Clock::now() + patience;
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    return result < 0 ? result : MakeReady(opened, patience, deadline, bus);
}

int OpenManagerBus(std::chrono::milliseconds patience, BusConnection& bus) {
    return ReachesManagerDirectly() ? OpenManagerSocket(patience, bus) : OpenSystemBus(patience, bus);
}

}  // namespace platform::systemd
