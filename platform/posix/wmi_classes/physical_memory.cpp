#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> PhysicalMemoryClasses() { return {}; }

}  // namespace platform::wmi
