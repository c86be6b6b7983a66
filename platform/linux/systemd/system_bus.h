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

/// Connects to the bus of DBUS_SYSTEM_BUS_ADDRESS, or where that is not set, the usual one. Waits for the bus no longer
/// than the patience, and lets no call on the connection wait longer for its answer, unless it has its own timeout.
/// -ENOENT or -ECONNREFUSED where there is no bus, -ETIMEDOUT when it does not answer.
int OpenSystemBus(std::chrono::milliseconds patience, BusConnection& bus);

/// Connects to the service manager: the superuser directly, where the manager has its own socket and no other bus was
/// named by DBUS_SYSTEM_BUS_ADDRESS, since that works without a bus and until the very end of the system; all others
/// through the system's bus. As for OpenSystemBus otherwise.
int OpenManagerBus(std::chrono::milliseconds patience, BusConnection& bus);

}  // namespace platform::systemd
