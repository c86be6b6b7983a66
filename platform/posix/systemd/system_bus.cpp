#include "platform/posix/systemd/system_bus.h"

#include <cerrno>

namespace platform::systemd {

namespace {

using Clock = std::chrono::steady_clock;

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

}  // namespace

int OpenSystemBus(std::chrono::milliseconds patience, BusConnection& bus) {
    const Clock::time_point deadline = Clock::now() + patience;
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    if (result < 0) return result;
    bus.reset(opened);
    sd_bus_set_method_call_timeout(opened, Microseconds(patience));
    return WaitUntilReady(opened, deadline);
}

}  // namespace platform::systemd
