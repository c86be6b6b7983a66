// Which unit a service's name stands for.
#pragma once

#include <string>
#include <string_view>

namespace platform::systemd {

/// The end of the name of a unit that is a service.
inline constexpr std::string_view serviceSuffix = ".service";

/// The unit of a service's name, both UTF-8: "ssh" is ssh.service, and so is "ssh.service". In a name that no unit can
/// have, such as "Some Agent - Host", letters become small and each run of other characters becomes one hyphen:
/// "some-agent-host.service". Empty for a template's name, for one that is too long, and for one of which too little
/// would be left: without a letter or digit, with characters beyond ASCII, or with others only before or after a word.
std::string UnitNameOf(std::string_view serviceName);

/// A pattern that finds the service of a name without regard to case, and no other; the name comes without suffix.
std::string PatternOfName(std::string_view name);

}  // namespace platform::systemd
