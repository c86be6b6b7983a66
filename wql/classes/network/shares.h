// Win32_Share: the folders and printers that this computer offers to others, over SMB and NFS.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the shares that the files below a root set, "" for this computer. Notices tell what could not be read;
/// it is a failure if there is no share at all.
WmiStatus GatherShares(const Gathering& gathering, const std::string& root);

}  // namespace kv::wql
