#include "facts/host_names.h"

#include <algorithm>
#include <cctype>
#include <sys/utsname.h>

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

/// A name of a section or a setting as Samba compares it: in small letters and without blanks.
std::string SambaName(std::string_view text) {
    std::string name;
    for (const char letter : text) {
        if (letter != ' ' && letter != '\t')
            name += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return name;
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

std::string WorkgroupName() {
    const std::string own = WorkgroupInSamba(platform::ReadSystemFile("/etc/samba/smb.conf").value_or(""));
    return own.empty() ? "WORKGROUP" : own;
}

std::string WorkgroupInSamba(std::string_view text) {
    std::string workgroup;
    bool isGlobal = true;  // what stands before the first section is, too
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        if (line.starts_with('#') || line.starts_with(';')) continue;
        if (line.starts_with('[')) isGlobal = SambaName(line.substr(1, line.find(']') - 1)) == "global";
        const std::size_t equals = line.find('=');
        if (isGlobal && equals != line.npos && SambaName(line.substr(0, equals)) == "workgroup")
            workgroup = Trimmed(line.substr(equals + 1));
    }
    return workgroup;
}

}  // namespace kv::facts
