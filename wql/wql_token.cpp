#include "wql/wql_token.h"

#include <algorithm>

#include "wql/cim_value.h"

namespace kv::wql {

namespace {

constexpr std::u16string_view blanks = u" \t\r\n\f\v";
constexpr std::u16string_view twoPartSigns[] = {u"<>", u"!=", u"<=", u">="};
constexpr std::u16string_view signs = u"*,()=<>.{}@";

bool IsDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }
bool IsLetter(char16_t unit) {
    return (unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z') || unit == u'_' || unit >= 0x80;
}
bool IsPartOfWord(char16_t unit) { return IsLetter(unit) || IsDigit(unit); }

bool BeginsNumber(std::u16string_view text) {
    if (text.front() == u'+' || text.front() == u'-') text.remove_prefix(1);
    return !text.empty() && IsDigit(text.front());
}

Token Take(std::u16string_view& text, TokenKind kind, std::size_t length) {
    Token token{.kind = kind, .spelling = text.substr(0, length), .literal = {}};
    text.remove_prefix(length);
    return token;
}

Token TakeWord(std::u16string_view& text) {
    const auto end = std::find_if_not(text.begin(), text.end(), IsPartOfWord);
    return Take(text, TokenKind::word, static_cast<std::size_t>(end - text.begin()));
}

/// The length of a number with the letters right after it, so that "12ab" is not read as 12.
std::size_t NumberLength(std::u16string_view text) {
    std::size_t length = 1;
    while (length < text.size()) {
        const char16_t unit = text[length];
        const bool isExponent = text[length - 1] == u'e' || text[length - 1] == u'E';
        if (!IsPartOfWord(unit) && unit != u'.' && !(isExponent && (unit == u'+' || unit == u'-'))) break;
        ++length;
    }
    return length;
}

Token TakeNumber(std::u16string_view& text) {
    Token token = Take(text, TokenKind::number, NumberLength(text));
    const CimValue number = NumberOfText(token.spelling);
    if (const auto* whole = std::get_if<std::int64_t>(&number.held)) {
        token.literal = *whole;
    } else if (const auto* large = std::get_if<std::uint64_t>(&number.held)) {
        token.literal = *large;
    } else if (const auto* real = std::get_if<double>(&number.held)) {
        token.literal = *real;
    } else {
        token.kind = TokenKind::unreadable;
    }
    return token;
}

Token TakeString(std::u16string_view& text) {
    const char16_t quote = text.front();
    std::u16string content;
    std::size_t at = 1;
    while (at < text.size() && text[at] != quote && text[at] != u'\0') {
        if (text[at] == u'\\' && (++at == text.size() || std::u16string_view(u"\\'\"").find(text[at]) == text.npos))
            break;
        content += text[at++];
    }
    if (at >= text.size() || text[at] != quote) return Take(text, TokenKind::unreadable, text.size());
    Token token = Take(text, TokenKind::string, at + 1);
    token.literal = std::move(content);
    return token;
}

Token TakeSign(std::u16string_view& text) {
    for (const std::u16string_view sign : twoPartSigns) {
        if (text.starts_with(sign)) return Take(text, TokenKind::sign, sign.size());
    }
    const bool isSign = signs.find(text.front()) != signs.npos;
    return Take(text, isSign ? TokenKind::sign : TokenKind::unreadable, 1);
}

}  // namespace

CimValue ValueOfLiteral(const Literal& literal) {
    return std::visit(
        [](const auto& value) {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, NullLiteral>) {
                return CimValue();
            } else {
                return CimValue(value);
            }
        },
        literal);
}

Token TakeToken(std::u16string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    if (text.empty()) return {};
    if (IsLetter(text.front())) return TakeWord(text);
    if (BeginsNumber(text)) return TakeNumber(text);
    if (text.front() == u'\'' || text.front() == u'"') return TakeString(text);
    return TakeSign(text);
}

}  // namespace kv::wql
