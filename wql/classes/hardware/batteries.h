// Win32_Battery: the batteries that power the computer.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the batteries of a folder such as /sys/class/power_supply. Fails if it is there and cannot be read.
WmiStatus GatherBatteries(const Gathering& gathering, const std::string& folder);

}  // namespace kv::wql
