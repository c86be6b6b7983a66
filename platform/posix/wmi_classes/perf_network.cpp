#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> PerfNetworkClasses() { return {}; }

}  // namespace platform::wmi
