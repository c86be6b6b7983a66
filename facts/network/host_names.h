// The names of this computer. No resolver is asked: it may not answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// The host name without its domain; Windows calls it SystemName and CSName.
std::u16string HostName();

/// The kind of machine as uname(2) names it, such as "x86_64"; UTF-8.
std::string MachineName();

/// The domain in the host name, else the one that /etc/hosts has for it; UTF-8, empty when neither has one.
std::string DomainName();

/// The domain in the first canonical name that has one, among the lines of a hosts(5) text that name the host; empty
/// when there is no such line.
std::string DomainInHosts(std::string_view text, std::string_view hostName);

/// The Windows workgroup that the computer is in, if it is not in a domain: that of Samba's configuration, else
/// "WORKGROUP", which is what a computer that is not told another one announces; UTF-8. Absent when there is such a
/// configuration, and it cannot be read.
std::optional<std::string> WorkgroupName(const std::string& configuration);

/// The workgroup in the global section of a smb.conf(5) text; empty when it does not set one.
std::string WorkgroupInSamba(std::string_view text);

}  // namespace kv::facts
