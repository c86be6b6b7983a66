#include "tools/kvagentctl/query/query_hints.h"

#include <algorithm>
#include <fmt/format.h>

#include "foundation/text.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

constexpr std::u16string_view blanks = u" \t\r\n";

/// The end of the text in quotes that begins at a place; the end of the query when it is not closed.
std::size_t EndOfText(std::u16string_view query, std::size_t begin) {
    std::size_t at = begin + 1;
    while (at < query.size() && query[at] != query[begin]) at += query[at] == u'\\' ? 2U : 1U;
    return std::min(at + 1, query.size());
}

/// Of a character outside texts that looks like another one; empty for any other.
std::string HintOfCharacter(char16_t unit, std::size_t column) {
    constexpr std::u16string_view quotes = u"\u2018\u2019\u201A\u201C\u201D\u201E\u00AB\u00BB\u2032\u2033\u00B4";
    constexpr std::u16string_view odd = u"\u00A0\u2000\u2001\u2002\u2003\u2007\u2009\u200B\u202F\u3000\uFEFF";
    if (quotes.find(unit) != std::u16string_view::npos)
        return fmt::format("character {} is {}, which is not a quotation mark here: write '", column,
                           Utf8FromWide({&unit, 1}));
    if (odd.find(unit) == std::u16string_view::npos) return "";
    const char* const name = unit == u'\u00A0' ? "a no-break space" : "not a plain blank";
    return fmt::format("character {} is {} (U+{:04X}): write a plain blank", column, name, static_cast<unsigned>(unit));
}

/// Of a pattern, quotes and all, that has the wildcards of a shell and not those of LIKE.
std::string HintOfPattern(std::u16string_view pattern) {
    if (pattern.find(u'%') != std::u16string_view::npos) return "";
    const bool hasStar = pattern.find(u'*') != std::u16string_view::npos;
    if (!hasStar &&
        (pattern.find(u'?') == std::u16string_view::npos || pattern.find(u'_') != std::u16string_view::npos))
        return "";
    return fmt::format("in LIKE {} {}", Utf8FromWide(pattern),
                       hasStar ? "the * stands for itself; % stands for any characters"
                               : "the ? stands for itself; _ stands for any one character");
}

bool EndsWithWord(std::u16string_view text, std::u16string_view word) {
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    if (text.size() <= word.size()) return false;
    const std::size_t before = text.size() - word.size();
    return CompareIgnoreCase(text.substr(before), word) == 0 &&
           blanks.find(text[before - 1]) != std::u16string_view::npos;
}

}  // namespace

std::vector<std::string> QueryHints(std::u16string_view query) {
    constexpr std::size_t mostHints = 3;
    std::vector<std::string> hints;
    char16_t last = 0;  // outside texts, blanks left out
    for (std::size_t at = 0; at < query.size();) {
        const char16_t unit = query[at];
        std::string hint;
        if (unit == u'\'' || unit == u'"') {
            const std::size_t end = EndOfText(query, at);
            if (EndsWithWord(query.substr(0, at), u"LIKE")) hint = HintOfPattern(query.substr(at, end - at));
            at = end;
        } else {
            hint = HintOfCharacter(unit, ++at);
        }
        if (blanks.find(unit) == std::u16string_view::npos) last = unit;
        if (!hint.empty() && hints.size() < mostHints) hints.push_back(std::move(hint));
    }
    if (last == u';') hints.emplace_back("leave out the ; at the end");
    return hints;
}

}  // namespace kv::control
