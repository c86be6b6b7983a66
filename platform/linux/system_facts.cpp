#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <netdb.h>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "platform/guarded.h"
#include "platform/linux/linux.h"
#include "platform/linux/system_file.h"
#include "platform/owned_handle.h"
#include "platform/utf.h"

namespace platform {

namespace {

/// The text of a shell-style assignment's right side: quotes and the backslashes before escaped characters go.
std::string WithoutShellQuotes(std::string_view quoted) {
    std::string text;
    for (std::size_t at = 0; at < quoted.size(); ++at) {
        if (quoted[at] == '"' || quoted[at] == '\'') continue;
        if (quoted[at] == '\\' && at + 1 < quoted.size()) ++at;
        text.push_back(quoted[at]);
    }
    return text;
}

/// PRETTY_NAME of os-release(5), or empty.
std::string DistributionName() {
    constexpr std::string_view key = "PRETTY_NAME=";
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::istringstream file(ReadSystemFile(path).value_or(""));
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with(key)) return WithoutShellQuotes(std::string_view(line).substr(key.size()));
        }
    }
    return {};
}

/// Major and minor number of a kernel release such as "6.1.0-18-amd64".
void ParseRelease(std::string_view release, SystemVersion& version) {
    const char* end = release.data() + release.size();
    const auto [afterMajor, ok] = std::from_chars(release.data(), end, version.major);
    if (ok == std::errc() && afterMajor != end) std::from_chars(afterMajor + 1, end, version.minor);
}

Error GetVersionExW(SystemVersion& version) {
    utsname names{};
    if (uname(&names) != 0) return ErrorFromErrno(errno);
    version = {};
    version.family = SystemFamily::other;
    ParseRelease(names.release, version);
    version.isAmd64 = std::string_view(names.machine) == "x86_64";
    const std::string distribution = DistributionName();
    version.plainName =
        WideFromUtf8(distribution.empty() ? std::string(names.sysname) + " " + names.release : distribution);
    return error::success;
}

/// The resolver's canonical name for a host name, or the name itself when the resolver does not know one.
std::string CanonicalName(const std::string& hostName) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    if (getaddrinfo(hostName.c_str(), nullptr, &hints, &found) != 0) return hostName;
    const std::unique_ptr<addrinfo, ReleasedBy<freeaddrinfo>> list(found);
    return found->ai_canonname != nullptr && *found->ai_canonname != '\0' ? found->ai_canonname : hostName;
}

Error GetComputerNameExW(std::u16string& name) {
    std::array<char, 256> hostName{};
    if (gethostname(hostName.data(), hostName.size() - 1) != 0) return ErrorFromErrno(errno);
    name = WideFromUtf8(CanonicalName(hostName.data()));
    return error::success;
}

Error ReadCredential(std::string_view name, std::string& secret) {
    constexpr std::size_t mostBytes = std::size_t{1024} * 1024;  // systemd's own bound
    const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
    if (directory == nullptr || *directory == '\0') return error::fileNotFound;
    std::optional<std::string> text = ReadOrdinaryFile(std::string(directory).append("/").append(name), mostBytes);
    if (!text) return ErrorFromErrno(errno);
    secret = *std::move(text);
    return error::success;
}

}  // namespace

SystemFactOperations LinuxSystemFacts() {
    return {.GetVersionExW = Guarded(GetVersionExW),
            .GetComputerNameExW = Guarded(GetComputerNameExW),
            .ReadCredential = Guarded(ReadCredential)};
}

}  // namespace platform
