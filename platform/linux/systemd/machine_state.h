// Whether this computer is going down.
#pragma once

#include <chrono>

namespace platform::systemd {

/// Asks the service manager, and where it gives no answer in half of the patience, logind in what is left. False where
/// nobody can tell.
bool IsMachineGoingDown(std::chrono::milliseconds patience);

}  // namespace platform::systemd
