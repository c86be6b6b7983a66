// Whether this computer is going down.
#pragma once

#include <chrono>

namespace platform::systemd {

/// Asks the service manager on its own socket, then on the system's bus, then logind; each waits no longer than the
/// patience. False where nobody can tell.
bool IsMachineGoingDown(std::chrono::milliseconds patience);

}  // namespace platform::systemd
