#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> PerfMemoryClasses() { return {}; }

}  // namespace platform::wmi
