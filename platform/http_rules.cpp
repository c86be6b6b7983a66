#include "platform/http_rules.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "platform/utf.h"

namespace platform {

namespace {

bool NeedsEncoding(unsigned char c) {
    return c <= ' ' || c >= 0x7f ||
           std::string_view("\"#<>\\^`{|}").find(static_cast<char>(c)) != std::string_view::npos;
}

bool IsEscape(std::string_view text, std::size_t at) {
    return at + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[at + 1])) &&
           std::isxdigit(static_cast<unsigned char>(text[at + 2]));
}

}  // namespace

std::string EncodeUrlText(std::u16string_view text) {
    constexpr char digits[] = "0123456789ABCDEF";
    const std::string utf8 = Utf8FromWide(text);
    std::string encoded;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        if (NeedsEncoding(c) || (c == '%' && !IsEscape(utf8, i))) {
            encoded += {'%', digits[c >> 4], digits[c & 15]};
        } else {
            encoded += utf8[i];
        }
    }
    return encoded;
}

bool IsHostName(std::u16string_view server) {
    return !server.empty() && std::none_of(server.begin(), server.end(), [](char16_t c) {
        return c <= u' ' || c == 0x7f || std::u16string_view(u"/\\?#@\"<>").find(c) != std::u16string_view::npos;
    });
}

bool IsHeaderLine(std::u16string_view header) {
    constexpr std::u16string_view refused(u"\r\n\0", 3);
    const std::size_t colon = header.find(u':');
    return colon != 0 && colon != header.npos && header.find_first_of(refused) == header.npos;
}

bool NamesProxy(std::u16string_view list) { return list.find_first_not_of(u"; \t\r\n") != list.npos; }

bool IsFollowedRedirect(std::uint32_t status, bool post) {
    static constexpr std::uint32_t redirects[] = {301, 302, 303, 307, 308};
    return std::find(std::begin(redirects), std::end(redirects), status) != std::end(redirects) &&
           (!post || status >= 307);
}

void HttpPace::Count(std::int64_t bytes, TimePoint now) {
    bytes_ += bytes;
    if (bytes_ >= slowestPaceBytes) *this = HttpPace(now);
}

}  // namespace platform
