#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> AccountClasses() { return {}; }

}  // namespace platform::wmi
