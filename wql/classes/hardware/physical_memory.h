// Win32_PhysicalMemory and Win32_PhysicalMemoryArray, from the firmware's tables.
#pragma once

#include "facts/hardware/smbios.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the memory devices (SMBIOS type 17) of a table, except empty sockets. Fails if the table could not be read.
WmiStatus GatherMemoryDevices(const Gathering& gathering, const facts::SmbiosTable& table);

/// Gathers the groups of sockets (SMBIOS type 16). Fails as above.
WmiStatus GatherMemoryArrays(const Gathering& gathering, const facts::SmbiosTable& table);

}  // namespace kv::wql
