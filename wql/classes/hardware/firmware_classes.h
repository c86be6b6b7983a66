// Win32_ComputerSystemProduct and Win32_BIOS, from what the firmware tells. If it tells nothing, as on some virtual
// machines, they have no objects.
#pragma once

#include "facts/hardware/smbios.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the BIOS from a table and its texts. Always ok.
WmiStatus GatherBios(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts);

}  // namespace kv::wql
