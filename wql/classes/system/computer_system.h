// Win32_ComputerSystem: the computer as a whole.
#pragma once

#include "facts/hardware/smbios.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers this computer, with a table of SMBIOS in place of its own. Always ok.
WmiStatus GatherComputerSystem(const Gathering& gathering, const facts::SmbiosTable& table);

}  // namespace kv::wql
