#include "platform/posix/systemd/unit_control.h"

namespace platform::systemd {}
