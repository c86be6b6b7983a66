#include "http/server_probe.h"

#include <fmt/format.h>
#include <vector>

#include "foundation/text.h"
#include "http/http_attempt.h"
#include "platform/http_rules.h"
#include "platform/utf.h"

namespace kv {

namespace {

/// The value of the header Location in the raw headers of an answer; empty without one.
std::u16string_view LocationIn(std::u16string_view headers) {
    constexpr std::u16string_view name = u"Location:";
    while (!headers.empty()) {
        const std::size_t end = headers.find(u"\r\n");
        const std::u16string_view line = headers.substr(0, end);
        if (CompareIgnoreCase(line.substr(0, name.size()), name) == 0) {
            const std::size_t first = line.find_first_not_of(u" \t", name.size());
            return first == std::u16string_view::npos ? u"" : line.substr(first);
        }
        headers.remove_prefix(end == std::u16string_view::npos ? headers.size() : end + 2);
    }
    return u"";
}

/// The scheme of a URL, with its colon; empty when it is relative.
std::u16string_view SchemeOf(std::u16string_view url) {
    const std::size_t end = url.find_first_of(u":/?#");
    return end != std::u16string_view::npos && url[end] == u':' ? url.substr(0, end + 1) : u"";
}

/// Takes host and port out of "user@host:port"; false when the host is empty or the port is not from 1 to 65535.
bool TakeAuthority(std::u16string_view authority, ServerPlace& place) {
    authority.remove_prefix(authority.rfind(u'@') + 1);  // npos + 1 is 0
    const std::size_t bracket = authority.starts_with(u'[') ? authority.find(u']') : 0;
    const std::size_t colon = authority.find(u':', bracket);
    place.host = authority.substr(0, colon);
    place.port = place.secure ? 443 : 80;
    const std::u16string_view port = colon == std::u16string_view::npos ? u"" : authority.substr(colon + 1);
    if (!port.empty()) place.port = ParseDecimal(port);
    const bool isNumber = port.find_first_not_of(u"0123456789") == std::u16string_view::npos;
    return !place.host.empty() && isNumber && place.port >= 1 && place.port <= 65535;
}

/// The path that a relative URL means at another path.
std::u16string RelativePath(std::u16string_view path, std::u16string_view relative) {
    const std::u16string_view page = path.substr(0, path.find(u'?'));
    if (relative.empty()) return std::u16string(path);
    if (relative.starts_with(u'/')) return std::u16string(relative);
    if (relative.starts_with(u'?')) return ConcatStrings(page, relative);
    return ConcatStrings(page.substr(0, page.rfind(u'/') + 1), relative);
}

}  // namespace

std::string UrlOf(const ServerPlace& place) {
    const std::string host = platform::Utf8FromWide(place.host);
    const bool isBare = host.find(':') != std::string::npos && !host.starts_with('[');
    return fmt::format("{}://{}{}{}:{}{}", place.secure ? "https" : "http", isBare ? "[" : "", host, isBare ? "]" : "",
                       place.port, platform::Utf8FromWide(place.path));
}

bool IsRedirect(const ServerAnswer& answer) {
    return platform::IsFollowedRedirect(answer.status, false) && !answer.location.empty() &&
           answer.answerer != Answerer::proxy;
}

std::optional<ServerPlace> RedirectedPlace(const ServerPlace& from, std::string_view location) {
    const std::u16string text = platform::WideFromUtf8(location);
    std::u16string_view rest = text;
    rest = rest.substr(0, rest.find(u'#'));
    ServerPlace place = from;
    const std::u16string_view scheme = SchemeOf(rest);
    rest.remove_prefix(scheme.size());
    if (!scheme.empty()) {
        place.secure = CompareIgnoreCase(scheme, u"https:") == 0;
        if (!place.secure && CompareIgnoreCase(scheme, u"http:") != 0) return std::nullopt;
        if (!rest.starts_with(u"//")) return std::nullopt;
    }
    if (!rest.starts_with(u"//")) {
        place.path = RelativePath(from.path, rest);
        return place;
    }
    rest.remove_prefix(2);
    const std::u16string_view authority = rest.substr(0, rest.find_first_of(u"/?"));
    if (!TakeAuthority(authority, place)) return std::nullopt;
    place.path = RelativePath(u"/", rest.substr(authority.size()));
    return place;
}

platform::Error ProbeServer(const ServerPlace& place, ServerAnswer& answer) {
    TransactionTarget target = TargetAt(place.host, place.port);
    target.secure = place.secure;
    HttpAttempt attempt{
        .routine = "ProbeServer",
        .target = target,
        .url = place.path,
        .verb = u"GET",
        .acceptTypes = u"*/*",
        .securityFlags =
            platform::ignoreUnknownAuthority | platform::ignoreInvalidCommonName | platform::ignoreInvalidDate,
        .limitConnectTime = true,
        .keepAlive = false,
        .restartReopensSession = true,
        .followsRedirects = false,
    };
    if (const platform::Error failure = SendAndReceive(attempt)) return failure;
    std::u16string headers;
    if (const platform::Error failure = ReadRawHeaders(attempt, headers)) return failure;
    std::uint32_t status = 0;
    if (const platform::Error failure = ReadStatus(attempt, status)) return failure;
    answer = {status, platform::Utf8FromWide(LocationIn(headers)), AnswererOf(attempt)};
    return platform::error::success;
}

}  // namespace kv
