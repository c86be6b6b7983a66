// The names of this computer. No resolver is asked: it may not answer.
#pragma once

#include <string>
#include <string_view>

namespace kv::facts {

/// The computer's name, without the domain if the host name carries one; what Windows calls SystemName and CSName.
std::u16string HostName();

/// The kind of machine as uname(2) names it, such as "x86_64"; UTF-8.
std::string MachineName();

/// The domain that the host name carries, else the one that /etc/hosts has for it; UTF-8, empty when neither has one.
std::string DomainName();

/// The domain of the first canonical name in a hosts(5) text whose line names the host and that has one; or empty.
std::string DomainInHosts(std::string_view text, std::string_view hostName);

}  // namespace kv::facts
