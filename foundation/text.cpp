#include "foundation/text.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <utf8.h>

#include "foundation/log.h"
#include "platform/utf.h"

namespace kv {

char16_t* CopyText(std::u16string_view text) {
    char16_t* copy = new (std::nothrow) char16_t[text.size() + 1];
    if (!copy) return nullptr;
    *std::copy(text.begin(), text.end(), copy) = u'\0';
    return copy;
}

void FreeText(char16_t* text) { delete[] text; }

std::u16string ConcatStrings(std::u16string_view a, std::u16string_view b) {
    std::u16string joined;
    try {
        joined.reserve(a.size() + b.size());
        joined.append(a).append(b);
    } catch (const std::bad_alloc&) {
        Log1("ConcatStrings() :: calloc for returnString is NULL\n");
    }
    return joined;
}

int AllocateAndDoStrcpy(OptionalText& dest, std::u16string_view source) {
    try {
        dest = std::u16string(source);
        return 1;
    } catch (const std::bad_alloc&) {
        Log1("Memory allocation failed for *dest\n");
        return 99;
    }
}

std::size_t SubString(std::u16string_view text, std::u16string_view part) { return text.find(part); }

int ChangeUtf8ToWideStr(const char* utf8, std::u16string& outWide) {
    if (!utf8 || !platform::IsValidUtf8(utf8)) return 0;
    outWide = platform::WideFromUtf8(utf8);
    return 1;
}

bool ChangeWideToUtf8Str(std::u16string_view wide, std::string& outUtf8) {
    try {
        std::string narrow;
        utf8::utf16to8(wide.begin(), wide.end(), std::back_inserter(narrow));
        outUtf8 = std::move(narrow);
        return true;
    } catch (const utf8::exception&) {
        return false;
    }
}

std::u16string& ReplaceChar(std::u16string& text, char16_t from, char16_t to) {
    std::replace(text.begin(), text.end(), from, to);
    return text;
}

std::int32_t ParseDecimal(std::u16string_view text) {
    const bool negative = text.starts_with(u'-');
    if (negative || text.starts_with(u'+')) text.remove_prefix(1);
    constexpr std::int64_t beyond = std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1;
    std::int64_t number = 0;
    for (const char16_t character : text) {
        if (character < u'0' || character > u'9') return -1;
        number = std::min(number * 10 + (character - u'0'), beyond);
    }
    return static_cast<std::int32_t>(negative ? -number : std::min(number, beyond - 1));
}

namespace {

int FoldedAscii(char16_t character) {
    return character >= u'A' && character <= u'Z' ? character - u'A' + u'a' : character;
}

}  // namespace

int CompareIgnoreCase(std::optional<std::u16string_view> a, std::optional<std::u16string_view> b) {
    if (!a || !b) return static_cast<int>(a.has_value()) - static_cast<int>(b.has_value());
    const std::size_t length = std::max(a->size(), b->size());
    for (std::size_t i = 0; i < length; ++i) {
        const int left = i < a->size() ? FoldedAscii((*a)[i]) : 0;
        const int right = i < b->size() ? FoldedAscii((*b)[i]) : 0;
        if (left != right) return left - right;
    }
    return 0;
}

std::uint16_t CountChar(std::u16string_view text, std::size_t length, char16_t character) {
    const std::u16string_view part = text.substr(0, length);
    return static_cast<std::uint16_t>(std::count(part.begin(), part.end(), character));
}

std::size_t FindChar(std::u16string_view text, char16_t character) { return text.find(character); }

std::u16string DecimalText(std::int64_t number) {
    const std::string digits = std::to_string(number);
    return std::u16string(digits.begin(), digits.end());
}

std::u16string QueryValue(std::u16string_view text) {
    constexpr std::u16string_view escaped = u"%&+#\\";
    constexpr std::u16string_view digits = u"0123456789ABCDEF";
    std::u16string value;
    for (const char16_t unit : text) {
        if (FindChar(escaped, unit) == escaped.npos) {
            value += unit;
        } else {
            value += {u'%', digits[unit >> 4], digits[unit & 15]};
        }
    }
    return value;
}

}  // namespace kv
