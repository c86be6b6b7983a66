// The tokens of a WQL text.
#pragma once

#include <string_view>

#include "wql/wql_query.h"

namespace kv::wql {

enum class TokenKind {
    end,
    word,        // a keyword or a name
    sign,        // an operator, a comma, a parenthesis or the asterisk
    string,      // the literal is its text, without quotes and escapes
    number,      // the literal is a whole or a real number
    unreadable,  // not a token of the language
};

struct Token {
    TokenKind kind = TokenKind::end;
    std::u16string_view spelling;  // a part of the query's text
    Literal literal;
};

/// Takes the next token off a text, with the blanks before it. After an unreadable token the rest cannot be read.
Token TakeToken(std::u16string_view& text);

}  // namespace kv::wql
