// CIM_DataFile, the files that WHERE names, and Win32_NTEventlogFile, the logs of the journal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Files that a query gives of one folder, of those that match WHERE, and names that it looks at there. A folder may
/// have millions.
inline constexpr std::size_t maxFolderFiles = 10000;
inline constexpr std::size_t maxFolderNames = 1000000;

/// Gathers the files that WHERE names. A mount of this mountinfo that does not answer, or that an automounter has not
/// mounted yet, costs only what lies on it, and a notice. notSupported if WHERE gives neither Name nor Path.
WmiStatus GatherDataFiles(const Gathering& gathering, std::string_view mountInfo);

/// Gathers the three logs of the journal in the folders, if the query is for logs only: among files they would be one
/// file four times. Fails as GatherEvents does, but not without a journal if WHERE asks for
/// certain files.
WmiStatus GatherEventLogFiles(const Gathering& gathering, const std::vector<std::string>& folders);

}  // namespace kv::wql
