// The tokens of a WQL text.
#pragma once

#include <string_view>

#include "wql/cim_value.h"
#include "wql/wql_query.h"

namespace kv::wql {

enum class TokenKind {
    end,
    word,        // a keyword or a name
    sign,        // an operator, a bracket, a comma, a dot, an asterisk or an at sign
    string,      // the literal is its text, without quotes and escapes
    number,      // the literal is a whole or a real number
    unreadable,  // not a token of the language
};

struct Token {
    TokenKind kind = TokenKind::end;
    std::u16string_view spelling;  // a part of the query's text
    Literal literal;
};

/// NULL for the literal NULL.
CimValue ValueOfLiteral(const Literal& literal);

/// Takes the next token off a text, with the blanks before it. After an unreadable token the rest cannot be read.
Token TakeToken(std::u16string_view& text);

}  // namespace kv::wql
