// CIM_DataFile, the files that WHERE names, and Win32_NTEventlogFile, the logs of the journal.
#pragma once

#include <string>
#include <vector>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Files that a query gives of one folder, and names that it looks at there. A folder may have millions.
inline constexpr std::size_t maxFolderFiles = 10000;
inline constexpr std::size_t maxFolderNames = 1000000;

/// Gathers the three logs of the journal in the folders. Fails as GatherEvents does, unless WHERE asks for other files.
WmiStatus GatherEventLogFiles(const Gathering& gathering, const std::vector<std::string>& folders);

}  // namespace kv::wql
