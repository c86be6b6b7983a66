#include "facts/network/host_names.h"

#include <algorithm>
#include <sys/utsname.h>

#include "facts/network/samba_config.h"
#include "facts/system_text.h"
#include "platform/utf.h"

namespace kv::facts {

namespace {

std::string NodeName() {
    utsname names{};
    return uname(&names) == 0 ? names.nodename : "";
}

std::string_view HostPart(std::string_view name) { return name.substr(0, name.find('.')); }

std::string_view DomainPart(std::string_view name) {
    const std::size_t host = HostPart(name).size();
    return name.substr(std::min(host + 1, name.size()));
}

/// Whether a name is among the fields of a line, which blanks separate.
bool HasField(std::string_view line, std::string_view name) {
    std::string_view field = TakeField(line);
    while (!field.empty() && field != name) field = TakeField(line);
    return !field.empty();
}

}  // namespace

std::u16string HostName() { return platform::WideFromUtf8(HostPart(NodeName())); }

std::string MachineName() {
    utsname names{};
    return uname(&names) == 0 ? names.machine : "";
}

std::string DomainName() {
    const std::string name = NodeName();
    if (!DomainPart(name).empty()) return std::string(DomainPart(name));
    return DomainInHosts(platform::ReadSystemFile("/etc/hosts").value_or(""), name);
}

std::string DomainInHosts(std::string_view text, std::string_view hostName) {
    for (std::string_view line; TakeLine(text, line);) {
        line = line.substr(0, line.find('#'));
        TakeField(line);  // the address
        if (!HasField(line, hostName)) continue;
        const std::string_view canonical = TakeField(line);
        if (!DomainPart(canonical).empty()) return std::string(DomainPart(canonical));
    }
    return {};
}

std::optional<std::string> WorkgroupName(const std::string& configuration) {
    const std::optional<std::string> text = ReadFileIfThere(configuration);
    if (!text) return std::nullopt;
    const std::string own = WorkgroupInSamba(*text);
    return own.empty() ? "WORKGROUP" : own;
}

std::string WorkgroupInSamba(std::string_view text) {
    return ValueIn(ParseSambaSections(text).front().settings, "workgroup");
}

}  // namespace kv::facts
