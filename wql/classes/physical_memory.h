// Win32_PhysicalMemory, from the firmware's tables.
#pragma once

#include <string_view>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the memory devices (SMBIOS type 17) of a table, except empty sockets. Always ok.
WmiStatus GatherMemoryDevices(const Gathering& gathering, std::string_view table);

}  // namespace kv::wql
