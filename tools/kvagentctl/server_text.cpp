#include "tools/kvagentctl/server_text.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fmt/format.h>

#include "foundation/host_text.h"
#include "foundation/text.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

/// The scheme's name in lower case, taken off the text with its "://"; empty when the text does not have one.
std::string TakeScheme(std::string_view& text) {
    const std::size_t end = text.find("://");
    if (end == std::string_view::npos) return "";
    std::string scheme(text.substr(0, end));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
    text.remove_prefix(end + 3);
    return scheme;
}

/// "https://cs" for a slip such as "https//cs" or "https:\cs", "cs" for "//cs"; empty for any other text.
std::string MeantBySlip(std::string_view text) {
    constexpr std::string_view marks = ":/\\";
    std::string scheme;
    for (const char* name : {"https", "http"}) {
        if (scheme.empty() && CompareIgnoreCase(platform::WideFromUtf8(text.substr(0, std::strlen(name))),
                                                platform::WideFromUtf8(name)) == 0)
            scheme = name;
    }
    const std::string_view rest = text.substr(scheme.size());
    const std::string_view mark = rest.substr(0, rest.find_first_not_of(marks));
    const std::string_view host = rest.substr(mark.size());
    const bool isPort = mark == ":" && host.find_first_not_of("0123456789") == std::string_view::npos;
    const bool isAddress = scheme.empty() && mark.starts_with(':');
    const bool isSlip = !mark.empty() && mark != "://" && !isPort && !isAddress;
    if (!isSlip || host.empty() || host.find('\\') != std::string_view::npos) return "";
    return (scheme.empty() ? "" : scheme + "://") + std::string(host);
}

/// Splits "host:port" and "[address]:port". An IPv6 address without brackets has no port.
void SplitHost(std::string_view text, ServerText& server) {
    const bool isBracketed = text.starts_with('[');
    const std::size_t bracket = text.find(']');
    std::size_t colon = std::string_view::npos;
    if (!isBracketed && std::count(text.begin(), text.end(), ':') == 1) colon = text.find(':');
    if (isBracketed && bracket != std::string_view::npos && text.substr(bracket).starts_with("]:")) colon = bracket + 1;
    const std::string_view host = text.substr(0, colon);
    server.host = isBracketed && host.ends_with(']') ? host.substr(1, host.size() - 2) : host;
    if (colon == std::string_view::npos) return;
    server.port = text.substr(colon + 1);
    if (server.port.empty()) server.problem = "has a colon without a port";
}

}  // namespace

ServerText ParseServerText(std::string_view text) {
    if (const std::string meant = MeantBySlip(text); !meant.empty()) {
        ServerText server = ParseServerText(meant);
        server.problem = fmt::format("takes a name, an address or a URL, not '{}'; did you mean {}?", text, meant);
        return server;
    }
    ServerText server;
    std::string_view rest = text;
    server.protocol = TakeScheme(rest);
    if (rest.find("://") != std::string_view::npos) {
        server = ParseServerText(rest);
        server.problem = fmt::format("has a scheme twice; did you mean {}?", rest);
        return server;
    }
    const std::size_t slash = rest.find('/');
    const std::string_view path = slash == std::string_view::npos ? "" : rest.substr(slash);
    SplitHost(rest.substr(0, slash), server);
    if (!server.protocol.empty() && server.protocol != "https" && server.protocol != "http")
        server.problem = fmt::format("takes https:// or http://, not '{}://'", server.protocol);
    else if (path.size() > 1)
        server.problem = fmt::format("takes no path, because the agent's paths are fixed: leave '{}' out", path);
    return server;
}

void RefuseCredentials(const commandline::Given& given, const char* option) {
    if (commandline::Value(given, option).find('@') == std::string::npos) return;
    throw commandline::UsageError(fmt::format(
        "{} takes neither user nor password before an @, because the agent does not log in at its server", option));
}

bool IsAddress(std::string_view text) {
    const std::u16string wide = platform::WideFromUtf8(text);
    return IsIpv4Text(wide) || IsIpv6Text(wide);
}

}  // namespace kv::control
