// Whether this computer is going down.
#pragma once

#include <chrono>

namespace platform::systemd {

/// Asks the service manager, and when that does not answer in half of the patience, logind in the rest of it. False
/// when neither answers.
[[nodiscard]] bool IsMachineGoingDown(std::chrono::milliseconds patience);

}  // namespace platform::systemd
