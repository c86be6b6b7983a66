// What a text can be as a host: judged by its form alone, no name server is asked. Callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace kv {

/// Characters of a name in the DNS.
inline constexpr std::size_t longestHost = 253;

/// Four decimal numbers up to 255 with dots between them, none with a zero ahead.
bool IsIpv4Text(std::u16string_view text);

/// The form of an IPv6 address, without brackets; a "%" and the name of an interface may stand behind it.
bool IsIpv6Text(std::u16string_view text);

/// Why a text can be neither a name nor an address, in brackets or without, to go on from the text itself, as ": an
/// IPv4 address has four numbers"; empty when it can. A name may have underscores and a dot at its end.
std::string HostFault(std::u16string_view text);

}  // namespace kv
