#include "jsontext/narrow_json.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

namespace kv {

namespace {

constexpr std::size_t countLength = 8;  // digits ahead of each text
constexpr std::string_view hexDigits = "0123456789abcdef";

/// A rewriting in progress.
struct Rewriting {
    std::u16string_view document;
    std::size_t position = 0;  // of the next unit to rewrite
    std::string narrow;
    char16_t quote = 0;  // ends the text at hand; 0 outside texts
    std::uint32_t texts = 0;
};

void AppendUnit(std::string& narrow, std::uint32_t unit) {
    if (unit < 0x80) {
        narrow += static_cast<char>(unit);
    } else if (unit < 0x800) {
        narrow += static_cast<char>(0xC0 | unit >> 6);
        narrow += static_cast<char>(0x80 | (unit & 0x3F));
    } else {
        narrow += static_cast<char>(0xE0 | unit >> 12);
        narrow += static_cast<char>(0x80 | (unit >> 6 & 0x3F));
        narrow += static_cast<char>(0x80 | (unit & 0x3F));
    }
}

/// Whether a unit becomes the one byte of its number and changes nothing for what follows.
bool IsPlain(const Rewriting& rewriting, char16_t unit) {
    if (unit >= 0x80) return false;
    return rewriting.quote != 0 ? unit != rewriting.quote && unit != u'\\'
                                : unit != u'"' && unit != u'\'' && unit != u'/';
}

/// Rewrites a run of plain units. Most of a document is plain.
void RewritePlainRun(Rewriting& rewriting) {
    const std::u16string_view document = rewriting.document;
    const std::size_t start = rewriting.position;
    std::size_t end = start;
    while (end < document.size() && IsPlain(rewriting, document[end])) ++end;
    const std::size_t written = rewriting.narrow.size();
    rewriting.narrow.resize(written + end - start);
    char* to = rewriting.narrow.data() + written;
    for (std::size_t at = start; at < end; ++at) *to++ = static_cast<char>(document[at]);
    rewriting.position = end;
}

void AppendTextCount(std::string& narrow, std::uint32_t count) {
    for (std::size_t digit = countLength; digit-- > 0;) narrow += hexDigits[count >> (4 * digit) & 0xF];
}

/// The value of a hexadecimal digit; 16 for any other unit.
std::uint32_t DigitValue(char16_t unit) {
    if (unit >= u'0' && unit <= u'9') return unit - std::uint32_t{u'0'};
    const std::uint32_t lower = unit | 0x20U;
    return lower >= u'a' && lower <= u'f' ? lower - u'a' + 10 : 16;
}

/// The number behind the "\u" that the text starts with; false when it is not such an escape.
bool ReadUnicodeEscape(std::u16string_view text, std::uint32_t& number) {
    if (text.size() < 6 || text[1] != u'u') return false;
    number = 0;
    for (const char16_t unit : text.substr(2, 4)) {
        const std::uint32_t digit = DigitValue(unit);
        if (digit > 15) return false;
        number = number << 4 | digit;
    }
    return true;
}

void RewriteEscape(Rewriting& rewriting) {
    const std::u16string_view rest = rewriting.document.substr(rewriting.position);
    std::uint32_t number = 0;
    if (ReadUnicodeEscape(rest, number) && number >= 0x80) {
        std::string bytes;
        AppendUnit(bytes, number);
        for (const char byte : bytes) AppendUnit(rewriting.narrow, static_cast<unsigned char>(byte));
        rewriting.position += 6;
        return;
    }
    // The escaped character goes along, so that an escaped quotation mark does not end the text.
    for (const char16_t unit : rest.substr(0, 2)) AppendUnit(rewriting.narrow, unit);
    rewriting.position += rest.size() < 2 ? rest.size() : 2;
}

/// The length of the comment at the start, in units; 0 when there is none, or it has no end.
std::size_t LengthOfComment(std::u16string_view rest) {
    const bool block = rest.starts_with(u"/*");
    if (!block && !rest.starts_with(u"//")) return 0;
    const std::size_t end = rest.find(block ? u"*/" : u"\n", 2);
    if (end == std::u16string_view::npos) return block ? 0 : rest.size();
    return end + (block ? 2 : 1);
}

/// json-c does not see the end of a comment such as "/***/", so comments are taken out here. One without an end stays,
/// and json-c refuses it.
bool SkipComment(Rewriting& rewriting) {
    const std::size_t length = LengthOfComment(rewriting.document.substr(rewriting.position));
    if (length == 0) return false;
    rewriting.narrow += ' ';
    rewriting.position += length;
    return true;
}

void RewriteInText(Rewriting& rewriting, char16_t unit) {
    if (unit == u'\\') {
        RewriteEscape(rewriting);
        return;
    }
    if (unit == rewriting.quote) rewriting.quote = 0;
    AppendUnit(rewriting.narrow, unit);
    ++rewriting.position;
}

void RewriteOutsideTexts(Rewriting& rewriting, char16_t unit) {
    if (unit == u'/' && SkipComment(rewriting)) return;
    AppendUnit(rewriting.narrow, unit);
    ++rewriting.position;
    if (unit == u'"' || unit == u'\'') {
        rewriting.quote = unit;
        AppendTextCount(rewriting.narrow, rewriting.texts++);
    }
}

void RewriteNext(Rewriting& rewriting) {
    const char16_t unit = rewriting.document[rewriting.position];
    if (rewriting.quote != 0)
        RewriteInText(rewriting, unit);
    else
        RewriteOutsideTexts(rewriting, unit);
}

}  // namespace

std::string NarrowJson(std::u16string_view document) {
    Rewriting rewriting;
    rewriting.document = document;
    rewriting.narrow.reserve(document.size() * 2);
    while (rewriting.position < document.size()) {
        RewritePlainRun(rewriting);
        if (rewriting.position < document.size()) RewriteNext(rewriting);
    }
    return std::move(rewriting.narrow);
}

std::size_t WideOffset(std::u16string_view document, std::size_t narrowOffset) {
    Rewriting rewriting;
    rewriting.document = document;
    while (rewriting.position < document.size()) {
        const std::size_t before = rewriting.position;
        RewriteNext(rewriting);
        if (rewriting.narrow.size() > narrowOffset) return before;
    }
    return document.size();
}

std::size_t LengthOfTextOrComment(std::u16string_view rest) {
    const char16_t quote = rest.front();
    if (quote == u'/') return LengthOfComment(rest);
    if (quote != u'"' && quote != u'\'') return 0;
    std::size_t at = 1;
    while (at < rest.size() && rest[at] != quote) at += rest[at] == u'\\' ? 2U : 1U;
    return std::min(at + 1, rest.size());
}

std::string_view WithoutTextCount(std::string_view narrow) {
    return narrow.substr(narrow.size() < countLength ? narrow.size() : countLength);
}

std::uint32_t NumberOfText(std::string_view narrow) {
    std::uint32_t number = 0;
    std::from_chars(narrow.data(), narrow.data() + std::min(narrow.size(), countLength), number, 16);
    return number;
}

std::u16string WideTextFromNarrow(std::string_view narrow) {
    narrow = WithoutTextCount(narrow);
    std::u16string wide(narrow.size(), u'\0');  // no unit takes less than a byte
    std::size_t length = 0;
    for (std::size_t i = 0; i < narrow.size();) {
        const auto byteAt = [&](std::size_t at) {
            return at < narrow.size() ? static_cast<unsigned char>(narrow[at]) & 0xFFU : 0U;
        };
        const std::uint32_t first = byteAt(i);
        std::uint32_t unit = first;
        if (first < 0x80) {
            i += 1;
        } else if (first < 0xE0) {
            unit = (first & 0x1F) << 6 | (byteAt(i + 1) & 0x3F);
            i += 2;
        } else {
            unit = (first & 0x0F) << 12 | (byteAt(i + 1) & 0x3F) << 6 | (byteAt(i + 2) & 0x3F);
            i += 3;
        }
        wide[length++] = static_cast<char16_t>(unit);
    }
    wide.resize(length);
    return wide;
}

}  // namespace kv
