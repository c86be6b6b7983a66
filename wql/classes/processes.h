// Win32_Process: the processes of /proc, kernel threads included, as ps lists them.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the processes that a folder such as /proc shows. What this user may not see is left out, with a notice:
/// whole processes, or parts of them. providerFailure if the folder does not even show this process.
WmiStatus GatherProcesses(const Gathering& gathering, const std::string& folder);

}  // namespace kv::wql
