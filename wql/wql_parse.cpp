// Recursive descent over the grammar of wql_query.h, one routine for each rule. A routine that finds something else
// returns null, or false.
#include <algorithm>
#include <optional>
#include <utility>

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
};

void Advance(Parser& parser) { parser.token = TakeToken(parser.rest); }

bool IsNext(const Parser& parser, TokenKind kind, std::u16string_view spelling) {
    return parser.token.kind == kind && CompareNames(parser.token.spelling, spelling) == 0;
}

bool Accept(Parser& parser, TokenKind kind, std::u16string_view spelling) {
    const bool isNext = IsNext(parser, kind, spelling);
    if (isNext) Advance(parser);
    return isNext;
}

bool AcceptWord(Parser& parser, std::u16string_view word) { return Accept(parser, TokenKind::word, word); }
bool AcceptSign(Parser& parser, std::u16string_view sign) { return Accept(parser, TokenKind::sign, sign); }

bool IsNameNext(const Parser& parser) {
    const auto isNext = [&parser](std::u16string_view word) { return IsNext(parser, TokenKind::word, word); };
    return parser.token.kind == TokenKind::word && std::none_of(std::begin(keyWords), std::end(keyWords), isNext);
}

bool ParseName(Parser& parser, std::u16string& name) {
    if (!IsNameNext(parser)) return false;
    name = parser.token.spelling;
    Advance(parser);
    return true;
}

/// A property in WHERE, or one of an embedded object: Name.Other.
bool ParseProperty(Parser& parser, std::u16string& name) {
    if (!ParseName(parser, name)) return false;
    while (AcceptSign(parser, u".")) {
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
    if (AcceptWord(parser, u"NULL")) {
        literal = NullLiteral();
    } else if (AcceptWord(parser, u"TRUE")) {
        literal = true;
    } else if (AcceptWord(parser, u"FALSE")) {
        literal = false;
    } else {
        return false;
    }
    return true;
}

bool ParseString(Parser& parser, Literal& literal) {
    return parser.token.kind == TokenKind::string && ParseLiteral(parser, literal);
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
    const auto* found = std::find_if(std::begin(operatorSigns), std::end(operatorSigns),
                                     [&parser](const OperatorSign& row) { return AcceptSign(parser, row.sign); });
    return found == std::end(operatorSigns) ? nullptr : found;
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

bool MeansSomething(const Comparison& comparison) {
    return !std::holds_alternative<NullLiteral>(comparison.literal) ||
           comparison.compare == ComparisonOperator::equal || comparison.compare == ComparisonOperator::notEqual;
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
    if (!isRead || !MeansSomething(comparison)) return nullptr;
    auto condition = std::make_unique<Condition>(Condition{std::move(comparison)});
    return isNegated ? Negated(std::move(condition)) : std::move(condition);
}

ConditionPtr ParseCondition(Parser& parser);
ConditionPtr ParseNegation(Parser& parser);

ConditionPtr ParseNested(Parser& parser, bool isNegation) {
    if (parser.depth == maxQueryDepth) {
        parser.failure = wmi_status::quotaViolation;
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
    return parser.token.kind == TokenKind::end;
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
    if (!IsNext(parser, TokenKind::sign, u"{")) return false;
    const std::optional<std::u16string_view> path = TextInBraces(parser.rest);
    std::optional<ObjectName> named = path ? ParseObjectPath(*path) : std::nullopt;
    if (!named || IsFailure(named->place)) {
        parser.failure = named ? named->place : wmi_status::invalidObjectPath;
        return false;
    }
    object = *std::move(named);
    parser.rest.remove_prefix(path->size() + 1);
    Advance(parser);
    return true;
}

/// The name after a word. Each word may stand once.
bool ParseAssigned(Parser& parser, std::u16string& name) {
    return name.empty() && AcceptSign(parser, u"=") && ParseName(parser, name);
}

/// One word of an association's WHERE, with what follows it.
bool ParseRestriction(Parser& parser, AssociationQuery& query) {
    for (const std::u16string_view unanswered :
         {u"KeysOnly", u"RequiredAssocQualifier", u"RequiredQualifier", u"SchemaOnly"}) {
        if (!IsNext(parser, TokenKind::word, unanswered)) continue;
        parser.failure = wmi_status::notSupported;
        return false;
    }
    if (AcceptWord(parser, u"ClassDefsOnly")) return !std::exchange(query.wantsClasses, true);
    if (AcceptWord(parser, u"ResultClass")) return ParseAssigned(parser, query.resultClass);
    if (AcceptWord(parser, u"Role")) return ParseAssigned(parser, query.role);
    if (query.wantsReferences) return false;
    if (AcceptWord(parser, u"AssocClass")) return ParseAssigned(parser, query.associationClass);
    return AcceptWord(parser, u"ResultRole") && ParseAssigned(parser, query.resultRole);
}

bool ParseAssociation(Parser& parser, AssociationQuery& query) {
    if (!AcceptWord(parser, u"OF") || !ParsePath(parser, query.object)) return false;
    if (!AcceptWord(parser, u"WHERE")) return parser.token.kind == TokenKind::end;
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

}  // namespace

WmiStatus ParseWql(std::u16string_view text, WqlStatement& statement) {
    if (text.size() > maxQueryLength) return wmi_status::quotaViolation;
    Parser parser{.rest = text, .token = {}};
    Advance(parser);
    return ParseStatement(parser, statement) ? wmi_status::ok : parser.failure;
}

}  // namespace kv::wql
