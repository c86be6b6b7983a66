// Recursive descent over the grammar of wql_query.h, one routine for each rule. A routine that finds something else
// returns null, or false.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "platform/near_name.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/wql_token.h"

namespace kv::wql {

namespace {

constexpr std::u16string_view keyWords[] = {u"AND", u"FALSE", u"FROM", u"IS",     u"ISA",  u"LIKE",
                                            u"NOT", u"NULL",  u"OR",   u"SELECT", u"TRUE", u"WHERE"};

struct Parser {
    std::u16string_view rest;
    Token token;  // the next one
    int depth = 0;
    WmiStatus failure = wmi_status::invalidQuery;  // the result, if parsing fails
    std::vector<std::u16string_view> expected;     // what was looked for in the next token's place
    std::u16string_view reason;                    // why it fails, unless by what was expected
};

void Advance(Parser& parser) {
    parser.token = TakeToken(parser.rest);
    parser.expected.clear();
}

/// False, after a note of what was looked for.
bool Miss(Parser& parser, std::u16string_view expected) {
    parser.expected.push_back(expected);
    return false;
}

/// False, for another reason than the next token.
bool Fail(Parser& parser, std::u16string_view reason, WmiStatus failure = wmi_status::invalidQuery) {
    parser.reason = reason;
    parser.failure = failure;
    return false;
}

bool IsNext(const Parser& parser, TokenKind kind, std::u16string_view spelling) {
    return parser.token.kind == kind && CompareNames(parser.token.spelling, spelling) == 0;
}

bool Accept(Parser& parser, TokenKind kind, std::u16string_view spelling) {
    if (!IsNext(parser, kind, spelling)) return Miss(parser, spelling);
    Advance(parser);
    return true;
}

bool AcceptWord(Parser& parser, std::u16string_view word) { return Accept(parser, TokenKind::word, word); }
bool AcceptSign(Parser& parser, std::u16string_view sign) { return Accept(parser, TokenKind::sign, sign); }

bool AcceptEnd(Parser& parser) { return parser.token.kind == TokenKind::end || Miss(parser, u"the end"); }

bool IsNameNext(const Parser& parser) {
    const auto isNext = [&parser](std::u16string_view word) { return IsNext(parser, TokenKind::word, word); };
    return parser.token.kind == TokenKind::word && std::none_of(std::begin(keyWords), std::end(keyWords), isNext);
}

bool ParseName(Parser& parser, std::u16string& name) {
    if (!IsNameNext(parser)) return Miss(parser, u"a name");
    name = parser.token.spelling;
    Advance(parser);
    return true;
}

/// A property in WHERE, or one of an embedded object: Name.Other.
bool ParseProperty(Parser& parser, std::u16string& name) {
    if (!ParseName(parser, name)) return false;
    while (IsNext(parser, TokenKind::sign, u".")) {
        Advance(parser);
        std::u16string inner;
        if (!ParseName(parser, inner)) return false;
        name.append(u".").append(inner);
    }
    return true;
}

bool ParseLiteral(Parser& parser, Literal& literal) {
    if (parser.token.kind == TokenKind::string || parser.token.kind == TokenKind::number) {
        literal = std::move(parser.token.literal);
        Advance(parser);
        return true;
    }
    if (IsNext(parser, TokenKind::word, u"NULL")) {
        literal = NullLiteral();
    } else if (IsNext(parser, TokenKind::word, u"TRUE")) {
        literal = true;
    } else if (IsNext(parser, TokenKind::word, u"FALSE")) {
        literal = false;
    } else {
        return Miss(parser, u"a value (a number, a text in quotes, TRUE, FALSE or NULL)");
    }
    Advance(parser);
    return true;
}

bool ParseString(Parser& parser, Literal& literal) {
    return parser.token.kind == TokenKind::string ? ParseLiteral(parser, literal) : Miss(parser, u"a text in quotes");
}

struct OperatorSign {
    std::u16string_view sign;
    ComparisonOperator compare;
    ComparisonOperator turned;  // the same with its two sides swapped
};

constexpr OperatorSign operatorSigns[] = {
    {u"=", ComparisonOperator::equal, ComparisonOperator::equal},
    {u"<>", ComparisonOperator::notEqual, ComparisonOperator::notEqual},
    {u"!=", ComparisonOperator::notEqual, ComparisonOperator::notEqual},
    {u"<", ComparisonOperator::less, ComparisonOperator::greater},
    {u">", ComparisonOperator::greater, ComparisonOperator::less},
    {u"<=", ComparisonOperator::lessOrEqual, ComparisonOperator::greaterOrEqual},
    {u">=", ComparisonOperator::greaterOrEqual, ComparisonOperator::lessOrEqual},
};

const OperatorSign* ParseOperator(Parser& parser) {
    const auto* found =
        std::find_if(std::begin(operatorSigns), std::end(operatorSigns),
                     [&parser](const OperatorSign& row) { return IsNext(parser, TokenKind::sign, row.sign); });
    if (found == std::end(operatorSigns)) {
        Miss(parser, u"an operator such as =");
        return nullptr;
    }
    Advance(parser);
    return found;
}

bool ParseOperatorAndLiteral(Parser& parser, Comparison& comparison) {
    const OperatorSign* found = ParseOperator(parser);
    if (found == nullptr) return false;
    comparison.compare = found->compare;
    return ParseLiteral(parser, comparison.literal);
}

bool ParseLiteralAndOperator(Parser& parser, Comparison& comparison) {
    if (!ParseLiteral(parser, comparison.literal)) return false;
    const OperatorSign* found = ParseOperator(parser);
    if (found == nullptr) return false;
    comparison.compare = found->turned;
    return ParseProperty(parser, comparison.property);
}

bool ParseNullTest(Parser& parser, Comparison& comparison) {
    const bool isNegated = AcceptWord(parser, u"NOT");
    comparison.compare = isNegated ? ComparisonOperator::notEqual : ComparisonOperator::equal;
    return AcceptWord(parser, u"NULL");
}

/// What follows a property; isNegated if that is NOT LIKE.
bool ParseTest(Parser& parser, Comparison& comparison, bool& isNegated) {
    if (AcceptWord(parser, u"IS")) return ParseNullTest(parser, comparison);
    if (AcceptWord(parser, u"ISA")) {
        comparison.compare = ComparisonOperator::isA;
        return ParseString(parser, comparison.literal);
    }
    isNegated = AcceptWord(parser, u"NOT");
    if (isNegated || IsNext(parser, TokenKind::word, u"LIKE")) {
        comparison.compare = ComparisonOperator::like;
        return AcceptWord(parser, u"LIKE") && ParseString(parser, comparison.literal);
    }
    return ParseOperatorAndLiteral(parser, comparison);
}

bool CheckNull(Parser& parser, const Comparison& comparison) {
    const bool suits = !std::holds_alternative<NullLiteral>(comparison.literal) ||
                       comparison.compare == ComparisonOperator::equal ||
                       comparison.compare == ComparisonOperator::notEqual;
    return suits || Fail(parser, u"NULL can only be compared by =, <>, != and IS");
}

ConditionPtr Negated(ConditionPtr operand) {
    return std::make_unique<Condition>(Condition{Negation{std::move(operand)}});
}

ConditionPtr ParseComparison(Parser& parser) {
    Comparison comparison;
    bool isNegated = false;
    const bool isRead = IsNameNext(parser)
                            ? ParseProperty(parser, comparison.property) && ParseTest(parser, comparison, isNegated)
                            : ParseLiteralAndOperator(parser, comparison);
    if (!isRead || !CheckNull(parser, comparison)) return nullptr;
    auto condition = std::make_unique<Condition>(Condition{std::move(comparison)});
    return isNegated ? Negated(std::move(condition)) : std::move(condition);
}

ConditionPtr ParseCondition(Parser& parser);
ConditionPtr ParseNegation(Parser& parser);

ConditionPtr ParseNested(Parser& parser, bool isNegation) {
    if (parser.depth == maxQueryDepth) {
        Fail(parser, u"parentheses and NOT are nested more than 200 deep", wmi_status::quotaViolation);
        return nullptr;
    }
    ++parser.depth;
    ConditionPtr condition = isNegation ? ParseNegation(parser) : ParseCondition(parser);
    --parser.depth;
    return condition;
}

ConditionPtr ParseNegation(Parser& parser) {
    if (AcceptWord(parser, u"NOT")) {
        ConditionPtr operand = ParseNested(parser, true);
        return operand ? Negated(std::move(operand)) : nullptr;
    }
    if (!AcceptSign(parser, u"(")) return ParseComparison(parser);
    ConditionPtr condition = ParseNested(parser, false);
    return condition && AcceptSign(parser, u")") ? std::move(condition) : nullptr;
}

/// One or more operands with a word between them; a single one stands for itself.
template <class Chain>
ConditionPtr ParseChain(Parser& parser, std::u16string_view word, ConditionPtr (*parseOperand)(Parser&)) {
    Chain chain;
    do {
        ConditionPtr operand = parseOperand(parser);
        if (!operand) return nullptr;
        chain.operands.push_back(std::move(operand));
    } while (AcceptWord(parser, word));
    if (chain.operands.size() == 1) return std::move(chain.operands.front());
    return std::make_unique<Condition>(Condition{std::move(chain)});
}

ConditionPtr ParseConjunction(Parser& parser) { return ParseChain<Conjunction>(parser, u"AND", ParseNegation); }
ConditionPtr ParseCondition(Parser& parser) { return ParseChain<Disjunction>(parser, u"OR", ParseConjunction); }

bool ParseProperties(Parser& parser, std::vector<std::u16string>& properties) {
    if (AcceptSign(parser, u"*")) return true;
    do {
        if (!ParseName(parser, properties.emplace_back())) return false;
    } while (AcceptSign(parser, u","));
    return true;
}

bool ParseSelect(Parser& parser, WqlQuery& query) {
    if (!ParseProperties(parser, query.properties) || !AcceptWord(parser, u"FROM") ||
        !ParseName(parser, query.className)) {
        return false;
    }
    if (AcceptWord(parser, u"WHERE")) {
        query.where = ParseCondition(parser);
        if (!query.where) return false;
    }
    return AcceptEnd(parser);
}

/// The part of a text before the brace that closes it; quotes hide braces. Absent if it is never closed.
std::optional<std::u16string_view> TextInBraces(std::u16string_view text) {
    char16_t quote = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char16_t unit = text[at];
        if (quote == 0 && unit == u'}') return text.substr(0, at);
        if (quote != 0 && unit == u'\\') {
            ++at;
        } else if (unit == quote) {
            quote = 0;
        } else if (quote == 0 && (unit == u'"' || unit == u'\'')) {
            quote = unit;
        }
    }
    return std::nullopt;
}

bool ParsePath(Parser& parser, ObjectName& object) {
    if (!IsNext(parser, TokenKind::sign, u"{")) return Miss(parser, u"{");
    const std::optional<std::u16string_view> path = TextInBraces(parser.rest);
    std::optional<ObjectName> named = path ? ParseObjectPath(*path) : std::nullopt;
    if (!named || IsFailure(named->place)) {
        return named ? Fail(parser, u"the path in braces leads to another computer or namespace", named->place)
                     : Fail(parser, u"what stands in braces is not a path such as Win32_Service.Name='cron'",
                            wmi_status::invalidObjectPath);
    }
    object = *std::move(named);
    parser.rest.remove_prefix(path->size() + 1);
    Advance(parser);
    return true;
}

/// The name after a word. Each word may stand once.
bool ParseAssigned(Parser& parser, std::u16string& name) {
    if (!name.empty()) return Fail(parser, u"the word before this stands twice");
    return AcceptSign(parser, u"=") && ParseName(parser, name);
}

/// One word of an association's WHERE, with what follows it.
bool ParseRestriction(Parser& parser, AssociationQuery& query) {
    for (const std::u16string_view unanswered :
         {u"KeysOnly", u"RequiredAssocQualifier", u"RequiredQualifier", u"SchemaOnly"}) {
        if (!IsNext(parser, TokenKind::word, unanswered)) continue;
        return Fail(parser, u"this word is not supported", wmi_status::notSupported);
    }
    if (AcceptWord(parser, u"ClassDefsOnly")) {
        return !std::exchange(query.wantsClasses, true) || Fail(parser, u"ClassDefsOnly stands twice");
    }
    if (AcceptWord(parser, u"ResultClass")) return ParseAssigned(parser, query.resultClass);
    if (AcceptWord(parser, u"Role")) return ParseAssigned(parser, query.role);
    if (query.wantsReferences) return false;
    if (AcceptWord(parser, u"AssocClass")) return ParseAssigned(parser, query.associationClass);
    return AcceptWord(parser, u"ResultRole") && ParseAssigned(parser, query.resultRole);
}

bool ParseAssociation(Parser& parser, AssociationQuery& query) {
    if (!AcceptWord(parser, u"OF") || !ParsePath(parser, query.object)) return false;
    if (!AcceptWord(parser, u"WHERE")) return AcceptEnd(parser);
    do {
        if (!ParseRestriction(parser, query)) return false;
    } while (parser.token.kind != TokenKind::end);
    return true;
}

bool ParseStatement(Parser& parser, WqlStatement& statement) {
    if (AcceptWord(parser, u"SELECT")) return ParseSelect(parser, statement.emplace<WqlQuery>());
    auto& query = statement.emplace<AssociationQuery>();
    query.wantsReferences = AcceptWord(parser, u"REFERENCES");
    return (query.wantsReferences || AcceptWord(parser, u"ASSOCIATORS")) && ParseAssociation(parser, query);
}

/// "a, b or c"; signs stand in quotes.
std::u16string Listed(const std::vector<std::u16string_view>& words) {
    std::u16string list;
    for (std::size_t at = 0; at < words.size(); ++at) {
        if (at > 0) list += at + 1 == words.size() ? u" or " : u", ";
        const bool isSign = words[at].size() == 1;
        list.append(isSign ? u"\"" : u"").append(words[at]).append(isSign ? u"\"" : u"");
    }
    return list;
}

/// What is wrong at the next token.
std::u16string ReasonAtToken(const Parser& parser) {
    if (!parser.reason.empty()) return std::u16string(parser.reason);
    if (parser.token.kind == TokenKind::unreadable) {
        const char16_t first = parser.token.spelling.front();
        const bool isText = first == u'\'' || first == u'"';
        return isText ? u"a text in quotes that is not closed, or in which a backslash escapes something else than a "
                        u"quote or a backslash"
                      : u"this is not a word, number, text or sign of the language";
    }
    std::u16string reason = Listed(parser.expected) + u" is expected";
    const std::u16string_view meant = platform::NearestName(parser.token.spelling, parser.expected);
    if (!meant.empty()) reason.append(u"; did you mean ").append(meant).append(u"?");
    return reason;
}

std::u16string ComplaintOf(const Parser& parser, std::u16string_view text) {
    constexpr std::size_t mostShown = 40;
    if (parser.token.kind == TokenKind::end) return u"at the end: " + ReasonAtToken(parser);
    const std::u16string_view spelling = parser.token.spelling;
    const auto column = static_cast<std::size_t>(spelling.data() - text.data()) + 1;
    std::u16string complaint = u"at character " + platform::WideFromUtf8(std::to_string(column)) + u", \"";
    complaint.append(spelling.substr(0, mostShown)).append(spelling.size() > mostShown ? u"...\"" : u"\"");
    return complaint + u": " + ReasonAtToken(parser);
}

}  // namespace

WmiStatus ParseWql(std::u16string_view text, WqlStatement& statement, std::u16string* complaint) {
    if (text.size() > maxQueryLength) {
        if (complaint != nullptr) *complaint = u"it is longer than 65536 characters";
        return wmi_status::quotaViolation;
    }
    Parser parser{.rest = text, .token = {}, .expected = {}, .reason = {}};
    Advance(parser);
    if (ParseStatement(parser, statement)) return wmi_status::ok;
    if (complaint != nullptr) *complaint = ComplaintOf(parser, text);
    return parser.failure;
}

}  // namespace kv::wql
