// Names and addresses of this computer and of others. Failures leave a log line and give false, with the output none.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/text.h"

namespace kv {

/// How long a start waits for name servers, in milliseconds, so that nothing that they do holds it up.
inline constexpr std::uint32_t startPatience = 300;

[[nodiscard]] bool GetLocalComputerName(OptionalText& out);

/// The fully qualified name. Looking it up may take a minute where name servers keep silent: after the patience, in
/// milliseconds, the plain name is taken, with a line. With platform::infinite the lookup is waited for to its end.
[[nodiscard]] bool GetComputerNameWithDNS(OptionalText& out, std::uint32_t patience = startPatience);

/// The first IPv4 address that this computer's own name leads to, dotted. Where that is a loopback address, or the
/// lookup fails or takes longer than the patience, the address of the interface with the default route, with a line;
/// without such a route, the loopback address or false.
[[nodiscard]] bool GetLocalIPAddr(OptionalText& out, std::uint32_t patience = startPatience);

/// Looks a host name or dotted address up, first as an address, then as a name.
[[nodiscard]] bool GetRemoteHostDetails(std::u16string_view name, OptionalText& outName, OptionalText& outAddress);

/// The operating system's name as the server gets it.
std::u16string GetOSName();

}  // namespace kv
