// Win32_Processor: a row for each socket, from /proc/cpuinfo, /sys/devices/system/cpu and the firmware's tables (SMBIOS
// type 4), which many virtual machines lack.
#pragma once

#include <string_view>

#include "facts/hardware/cpu_info.h"
#include "facts/hardware/processor_load.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// What describes the processors.
struct ProcessorSources {
    std::string_view cpuInfo;          // /proc/cpuinfo
    std::string_view firmware;         // a table of SMBIOS
    std::string_view machine;          // as uname(2) names it
    facts::CpuFiles files;             // called only for what a query needs
    facts::TimesByProcessor loadFrom;  // the load is that between these
    facts::TimesByProcessor loadTo;    // two samples
};

/// Gathers the processors that the sources describe. Always ok.
WmiStatus GatherProcessors(const Gathering& gathering, const ProcessorSources& sources);

}  // namespace kv::wql
