#include "platform/posix/wmi_classes/families.h"

namespace platform::wmi {

std::span<const ClassInfo> TimeClasses() { return {}; }

}  // namespace platform::wmi
