// The system's message bus (D-Bus), and the service manager's own socket, through sd-bus.
//
// Results are those of sd-bus: below 0, a negated errno value.
#pragma once

#include <chrono>
#include <memory>
#include <systemd/sd-bus.h>

#include "platform/owned_handle.h"

namespace platform::systemd {

/// One connection; belongs to one thread at a time.
using BusConnection = std::unique_ptr<sd_bus, ReleasedBy<sd_bus_close_unref>>;

/// Connects to the bus of DBUS_SYSTEM_BUS_ADDRESS, or to the usual one when that is not set. Waits for the bus no
/// longer than the patience; calls on the connection wait as long for their answers, unless they have their own
/// timeout. -ENOENT or -ECONNREFUSED where there is no bus, -ETIMEDOUT when it does not answer.
[[nodiscard]] int OpenSystemBus(std::chrono::milliseconds patience, BusConnection& bus);

/// Connects to the service manager. The superuser connects directly, where the manager has its own socket and
/// DBUS_SYSTEM_BUS_ADDRESS does not name another bus, because that works without a bus and until the very end of the
/// system. All others connect through the system's bus. Otherwise as OpenSystemBus.
[[nodiscard]] int OpenManagerBus(std::chrono::milliseconds patience, BusConnection& bus);

}  // namespace platform::systemd
