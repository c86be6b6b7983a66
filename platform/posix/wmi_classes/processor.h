// Win32_Processor: a row for each socket, of /proc/cpuinfo, /sys/devices/system/cpu and the firmware's tables (SMBIOS
// type 4), the last of which many virtual machines lack.
#pragma once

#include <string_view>

#include "platform/posix/wmi/wmi_class.h"

namespace platform::wmi {

/// What processors are described by.
struct ProcessorTexts {
    std::string_view cpuInfo;   // /proc/cpuinfo
    std::string_view firmware;  // a table of SMBIOS
    std::string_view machine;   // as uname(2) names it
};

/// Gathers the processors of such texts; what is to be read of /sys and of /proc/stat is read by their numbers.
WmiStatus GatherProcessors(const Gathering& gathering, const ProcessorTexts& texts);

}  // namespace platform::wmi
