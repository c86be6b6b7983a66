#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> ComputerSystemClasses() { return {}; }

}  // namespace platform::wmi
