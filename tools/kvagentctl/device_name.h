// The name of an SNMP device, as people give it.
#pragma once

#include <string>
#include <string_view>

namespace kv::control {

/// Why a name cannot be that of a device, as the end of a sentence that begins with what it is, and what to do; empty
/// when it can. ofPort: where a port goes.
std::string DeviceNameFault(std::string_view name, std::string_view ofPort);

}  // namespace kv::control
