// Names and addresses of this computer and of others. A failure leaves a log line and gives false, with absent outputs.
// Callable from any thread; the calls wait for name servers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/text.h"

namespace kv {

/// How long a start waits for name servers, in milliseconds, so that silent ones do not hold it up.
inline constexpr std::uint32_t startPatience = 300;

[[nodiscard]] bool GetLocalComputerName(OptionalText& out);

/// The fully qualified name. Name servers that keep silent make the lookup last a minute: after the patience, in
/// milliseconds, the plain name is taken, with a line. platform::infinite waits for the lookup to end.
[[nodiscard]] bool GetComputerNameWithDNS(OptionalText& out, std::uint32_t patience = startPatience);

/// The first IPv4 address that this computer's own name leads to, dotted. If that is a loopback address, or the lookup
/// fails or outlasts the patience: the address of the interface with the default route, with a line. Without such a
/// route: the loopback address, or false when the lookup gave nothing.
[[nodiscard]] bool GetLocalIPAddr(OptionalText& out, std::uint32_t patience = startPatience);

/// Looks up a host by its dotted address or its name, first as an address, then as a name. An address ends at a blank.
[[nodiscard]] bool GetRemoteHostDetails(std::u16string_view name, OptionalText& outName, OptionalText& outAddress);

/// The operating system's name as the server gets it; "NULL" when the system does not tell.
std::u16string GetOSName();

}  // namespace kv
