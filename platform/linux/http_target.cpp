#include "platform/linux/http_target.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <curl/curl.h>
#include <memory>
#include <utility>
#include <vector>

#include "platform/http_rules.h"
#include "platform/owned_handle.h"
#include "platform/utf.h"

namespace platform {

namespace {

using UrlHandle = std::unique_ptr<CURLU, ReleasedBy<curl_url_cleanup>>;

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

std::string UrlPart(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
    return std::unique_ptr<char, ReleasedBy<curl_free>>(text).get();
}

std::optional<HttpTarget> TargetOf(CURLU* url) {
    HttpTarget target;
    target.url = UrlPart(url, CURLUPART_URL);
    target.host = LowerCase(UrlPart(url, CURLUPART_HOST));
    if (target.host.starts_with('[')) target.host = target.host.substr(1, target.host.size() - 2);
    const std::string scheme = LowerCase(UrlPart(url, CURLUPART_SCHEME));
    target.secure = scheme == "https";
    const std::string port = UrlPart(url, CURLUPART_PORT);
    const auto parsed = std::from_chars(port.data(), port.data() + port.size(), target.port);
    if ((!target.secure && scheme != "http") || target.host.empty() || parsed.ec != std::errc()) return std::nullopt;
    return target;
}

/// Whether a text matches a pattern in which "*" stands for any text. Goes back to the last star only, so its time is
/// bounded by the product of the lengths.
bool MatchesPattern(std::string_view pattern, std::string_view text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    return pattern.substr(p).find_first_not_of('*') == std::string_view::npos;
}

std::vector<std::string> Entries(std::string_view list) {
    constexpr std::string_view separators = "; \t\r\n";
    std::vector<std::string> entries;
    for (std::size_t start = 0; (start = list.find_first_not_of(separators, start)) != std::string_view::npos;) {
        const std::size_t end = std::min(list.find_first_of(separators, start), list.size());
        entries.push_back(LowerCase(list.substr(start, end - start)));
        start = end;
    }
    return entries;
}

/// Takes a prefix up to and with the separator off a text; empty when the separator does not occur.
std::string_view TakePrefix(std::string_view& text, std::string_view separator) {
    const std::size_t at = text.find(separator);
    if (at == std::string_view::npos) return {};
    const std::string_view prefix = text.substr(0, at);
    text.remove_prefix(at + separator.size());
    return prefix;
}

/// Splits "host:port" and "[address]:port"; the port is empty when it is not given. A bare IPv6 address has no port.
std::pair<std::string_view, std::string_view> SplitPort(std::string_view text) {
    std::size_t hostEnd = text.size();
    if (text.starts_with('[')) {
        hostEnd = std::min(text.find(']'), text.size() - 1) + 1;
    } else if (std::count(text.begin(), text.end(), ':') == 1) {
        hostEnd = text.find(':');
    }
    const std::string_view port = text.substr(hostEnd);
    return {text.substr(0, hostEnd), port.substr(port.empty() ? 0 : 1)};
}

std::string_view SchemeOf(const HttpTarget& target) { return target.secure ? "https" : "http"; }

bool EntryMatches(std::string_view entry, const HttpTarget& target) {
    if (entry == "<local>") return target.host.find_first_of(".:") == std::string::npos;
    const std::string_view scheme = TakePrefix(entry, "://");
    if (!scheme.empty() && scheme != SchemeOf(target)) return false;
    auto [host, port] = SplitPort(entry);
    if (!port.empty() && port != "*" && port != std::to_string(target.port)) return false;
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    return !host.empty() && MatchesPattern(host, target.host);
}

}  // namespace

std::optional<HttpTarget> MakeHttpTarget(bool secure, std::u16string_view server, std::uint16_t port,
                                         std::u16string_view path) {
    std::string host = Utf8FromWide(server);
    if (host.find(':') != std::string::npos && !host.starts_with('[')) host = "[" + host + "]";
    if (port == 0) port = secure ? 443 : 80;
    std::string text = (secure ? "https://" : "http://") + host + ":" + std::to_string(port);
    if (!path.starts_with(u'/')) text += '/';
    text += EncodeUrlText(path);
    const UrlHandle url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
        return std::nullopt;
    auto target = TargetOf(url.get());
    if (target) target->url = text;
    return target;
}

std::optional<HttpTarget> RedirectedTarget(const HttpTarget& from, std::string_view location) {
    std::string encoded;  // libcurl would make a plus sign of a blank behind the question mark
    for (const char c : location) encoded += c == ' ' ? std::string("%20") : std::string(1, c);
    const UrlHandle url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, from.url.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK ||
        curl_url_set(url.get(), CURLUPART_URL, encoded.c_str(), CURLU_URLENCODE) != CURLUE_OK) {
        return std::nullopt;
    }
    // Nobody's credentials go anywhere because an answer says so.
    curl_url_set(url.get(), CURLUPART_USER, nullptr, 0);
    curl_url_set(url.get(), CURLUPART_PASSWORD, nullptr, 0);
    return TargetOf(url.get());
}

bool IsBypassed(std::string_view bypassList, const HttpTarget& target) {
    const std::vector<std::string> entries = Entries(bypassList);
    return std::any_of(entries.begin(), entries.end(),
                       [&](const std::string& entry) { return EntryMatches(entry, target); });
}

std::string ProxyFromList(std::string_view proxyList, const HttpTarget& target) {
    for (const std::string& text : Entries(proxyList)) {
        std::string_view entry = text;
        const std::string_view scheme = TakePrefix(entry, "=");
        if (!scheme.empty() && scheme != SchemeOf(target)) continue;
        TakePrefix(entry, "://");
        entry = entry.substr(0, entry.find('/'));
        const auto [host, port] = SplitPort(entry);
        if (host.empty()) continue;
        const bool isBareAddress = host.find(':') != host.npos && !host.starts_with('[');
        return (isBareAddress ? "[" + std::string(host) + "]" : std::string(host)) + ":" +
               (port.empty() ? "80" : std::string(port));
    }
    return {};
}

}  // namespace platform
