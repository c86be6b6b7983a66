// Names and addresses of this computer and of others. Failures leave a log line and give false, with the output none.
#pragma once

#include <string>
#include <string_view>

#include "foundation/text.h"

namespace kv {

bool GetLocalComputerName(OptionalText& out);
bool GetComputerNameWithDNS(OptionalText& out);

/// The first IPv4 address that this computer's own name resolves to, dotted.
bool GetLocalIPAddr(OptionalText& out);

/// Looks a host name or dotted address up, first as an address, then as a name.
bool GetRemoteHostDetails(std::u16string_view name, OptionalText& outName, OptionalText& outAddress);

/// The operating system's name as the server gets it.
std::u16string GetOSName();

}  // namespace kv
