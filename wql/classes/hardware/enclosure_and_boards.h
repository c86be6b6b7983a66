// Win32_SystemEnclosure and Win32_BaseBoard, from the firmware's tables, else from the texts that the kernel takes from
// them for everybody to read.
#pragma once

#include "facts/hardware/smbios.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the enclosures (SMBIOS type 3). Fails if the table could not be read and there are no texts either.
WmiStatus GatherEnclosures(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts);

/// Gathers the boards (SMBIOS type 2). Fails as above.
WmiStatus GatherBaseBoards(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts);

}  // namespace kv::wql
