// Win32_Product and Win32_QuickFixEngineering: the packages that dpkg and rpm have installed, and their updates.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gather from the databases below a root; "" for this computer's own. A computer may have both, or neither: then there
/// are no objects. One that is there and cannot be read gives a notice, and a failure if there is no object at all.
WmiStatus GatherProducts(const Gathering& gathering, const std::string& root);
WmiStatus GatherUpdates(const Gathering& gathering, const std::string& root);

}  // namespace kv::wql
