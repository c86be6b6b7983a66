// What is wrong with the words of an SNMP request, as people give them, and what an answer to it means.
#pragma once

#include <string>
#include <string_view>

namespace kv::control {

/// Why a name cannot be that of a device, as the end of a sentence that begins with what it is, and what to do; empty
/// when it can. ofPort: where a port goes.
std::string DeviceNameFault(std::string_view name, std::string_view ofPort);

/// Begins what OidFault says of a text that is not an OID at all.
inline constexpr std::string_view notNumbers = "is not numbers with dots between";

/// Why one OID, which begins with a dot, cannot be asked for, behind the OID; empty when it can. Lines go to the log.
std::string OidFault(const std::string& oid);

/// What a value that stands alone has at its end, and what it is for.
inline constexpr const char* instanceHint = "a value that stands alone has .0 at its end, and gnext finds it";

/// What a line of the log about an answer's error status means, to go on from the line; empty when that is not known.
std::string ErrorStatusMeaning(std::string_view line);

}  // namespace kv::control
