#include "platform/utf.h"

#include <algorithm>
#include <iterator>
#include <utf8.h>

namespace platform {

namespace {

constexpr char16_t replacement = u'\uFFFD';

/// Most texts are, and are then copied character by character.
template <class Text>
bool IsAscii(Text text) {
    return std::all_of(text.begin(), text.end(), [](auto unit) { return unit >= 0 && unit < 0x80; });
}

bool IsLead(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsTrail(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

char32_t CombinedSurrogates(char16_t lead, char16_t trail) {
    return 0x10000 + ((static_cast<char32_t>(lead) - 0xD800) << 10) + (static_cast<char32_t>(trail) - 0xDC00);
}

}  // namespace

std::string Utf8FromWide(std::u16string_view wide) {
    if (IsAscii(wide)) return {wide.begin(), wide.end()};
    std::string utf8;
    utf8.reserve(wide.size());
    for (std::size_t at = 0; at < wide.size(); ++at) {
        const char16_t unit = wide[at];
        char32_t point = unit;
        if (IsLead(unit) && at + 1 < wide.size() && IsTrail(wide[at + 1])) {
            point = CombinedSurrogates(unit, wide[++at]);
        } else if (IsLead(unit) || IsTrail(unit)) {
            point = replacement;
        }
        utf8::unchecked::append(point, std::back_inserter(utf8));
    }
    return utf8;
}

std::u16string WideFromUtf8(std::string_view utf8) {
    if (IsAscii(utf8)) return {utf8.begin(), utf8.end()};
    std::string repaired;
    if (!IsValidUtf8(utf8)) {
        utf8::replace_invalid(utf8.begin(), utf8.end(), std::back_inserter(repaired), replacement);
        utf8 = repaired;
    }
    std::u16string wide;
    wide.reserve(utf8.size());
    utf8::unchecked::utf8to16(utf8.begin(), utf8.end(), std::back_inserter(wide));
    return wide;
}

bool IsValidUtf8(std::string_view utf8) { return utf8::is_valid(utf8.begin(), utf8.end()); }

}  // namespace platform
