#include "platform/posix/systemd/machine_state.h"

namespace platform::systemd {

bool IsMachineGoingDown(std::chrono::milliseconds) { return false; }

}  // namespace platform::systemd
