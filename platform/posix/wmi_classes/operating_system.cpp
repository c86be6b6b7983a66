#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> OperatingSystemClasses() { return {}; }

}  // namespace platform::wmi
