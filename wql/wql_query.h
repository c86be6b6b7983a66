// A WQL statement as it is written, and its parser.
//
//     statement  = query | associators | references
//     query      = SELECT ( "*" | name { "," name } ) FROM class [ WHERE condition ]
//     associators = ASSOCIATORS OF "{" path "}" [ WHERE { AssocClass "=" class | ResultClass "=" class
//                  | Role "=" property | ResultRole "=" property | ClassDefsOnly } ]
//     references = REFERENCES OF "{" path "}" [ WHERE { ResultClass "=" class | Role "=" property | ClassDefsOnly } ]
//     condition  = conjunction { OR conjunction }
//     conjunction = negation { AND negation }
//     negation   = NOT negation | "(" condition ")" | comparison
//     property   = name { "." name }
//     comparison = property operator literal | literal operator property | property [ NOT ] LIKE string
//                | property IS [ NOT ] NULL | __THIS ISA string
//     operator   = "=" | "<>" | "!=" | "<" | ">" | "<=" | ">="
//     literal    = string | number | TRUE | FALSE | NULL
//
// Keywords and names are read without regard to case. SELECT, FROM, WHERE and the words of a condition cannot be names.
// A name begins with a letter or an underscore, and digits may follow; all characters beyond ASCII count as letters. A
// string stands in single or double quotes; a backslash in it escapes a quote or a backslash, and nothing else may
// follow one. Numbers are those of NumberOfText (cim_value.h). NULL can only be compared by =, <> and !=. Each word of
// an association's WHERE may stand once. A zero character is an error anywhere.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/wmi_status.h"
#include "wql/object_path.h"

namespace kv::wql {

using platform::WmiStatus;

struct NullLiteral {};
/// A whole number too large for 64 bits is held as a double.
using Literal = std::variant<NullLiteral, bool, std::int64_t, std::uint64_t, double, std::u16string>;

enum class ComparisonOperator { equal, notEqual, less, greater, lessOrEqual, greaterOrEqual, like, isA };

/// IS NULL becomes "equal to NULL" and IS NOT NULL "not equal to NULL"; a comparison with the literal on the left is
/// turned around; NOT LIKE becomes a negation of a LIKE.
struct Comparison {
    std::u16string property;
    ComparisonOperator compare = ComparisonOperator::equal;
    Literal literal;
};

struct Condition;
using ConditionPtr = std::unique_ptr<Condition>;
struct Negation {
    ConditionPtr operand;
};
/// Two or more operands, in the order of the text.
struct Conjunction {
    std::vector<ConditionPtr> operands;
};
struct Disjunction {
    std::vector<ConditionPtr> operands;
};
struct Condition {
    std::variant<Comparison, Negation, Conjunction, Disjunction> form;
};

struct WqlQuery {
    std::vector<std::u16string> properties;  // empty: all
    std::u16string className;
    ConditionPtr where;  // null: every object
};

/// Asks for what is associated with an object: the objects at the other ends of its associations, or the associations
/// themselves.
struct AssociationQuery {
    bool wantsReferences = false;
    ObjectName object;
    std::u16string associationClass;  // here and below: empty if any will do
    std::u16string resultClass;
    std::u16string role;        // the association's property that names the object
    std::u16string resultRole;  // the association's property that names the result
    bool wantsClasses = false;  // the classes of the results instead of the results
};

using WqlStatement = std::variant<WqlQuery, AssociationQuery>;

/// Bounds of a query's text, as it comes from a server: characters, and how deep parentheses and negations may nest.
inline constexpr std::size_t maxQueryLength = 65536;
inline constexpr int maxQueryDepth = 200;

/// ok; invalidQuery for any other text; invalidObjectPath for a path in braces that does not name an object, and for
/// one that leads elsewhere the failure of CheckNamespace; notSupported for what this language has and is not answered:
/// KeysOnly, SchemaOnly, and qualifiers in WHERE of associations; quotaViolation beyond the bounds. The statement is
/// complete only if the result is ok. A complaint, if wanted, then says where the text is wrong and what is expected
/// there.
WmiStatus ParseWql(std::u16string_view text, WqlStatement& statement, std::u16string* complaint = nullptr);

}  // namespace kv::wql
