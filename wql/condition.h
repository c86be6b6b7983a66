// A WHERE condition bound to a class: properties looked up, literals brought to the properties' types.
//
// A comparison with a property that is NULL is neither true nor false, and NOT leaves it so; only IS NULL, = NULL and
// their opposites tell NULL apart. An object is taken when the whole is true. Texts compare without regard to case,
// datetimes as moments.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "wql/wmi_class.h"
#include "wql/wql_query.h"

namespace kv::wql {

/// None: neither true nor false.
using Truth = std::optional<bool>;

struct BoundComparison {
    const PropertyInfo* property = nullptr;  // none: the class itself, for __THIS ISA and __CLASS
    ComparisonOperator compare = ComparisonOperator::equal;
    CimValue value;  // NULL, or a value by which the property's can be compared; a datetime's microseconds since 1970
    Truth constant;  // the result where it does not depend on the object (property none)
};

struct BoundCondition {
    enum class Form { comparison, negation, conjunction, disjunction };
    Form form = Form::comparison;
    BoundComparison comparison;
    std::vector<BoundCondition> operands;
};

/// Binds to a class. invalidQuery when the class lacks a property, or a literal cannot be brought to its property's
/// type: text that is no number for a number (a number in quotes is one), anything but a DMTF text for a datetime, LIKE
/// on another type than text, and any comparison of an array but with NULL. TRUE and FALSE are numbers other than 0 and
/// 0, or the words in quotes. A number is text for a property that holds text. __CLASS compares with the class's name,
/// __SUPERCLASS and __DYNASTY with those of the one it inherits from and of the first one above; ISA goes with __THIS
/// alone. Other properties of the system itself are not compared.
WmiStatus BindCondition(const Condition& condition, const ClassInfo& classInfo, BoundCondition& bound);

/// Whether an object's row record matches.
bool Matches(const BoundCondition& condition, const void* row);

/// False when no object of the class can match, whatever its properties are: the condition asks for another class.
bool CanMatch(const BoundCondition& condition);

/// The needs of all properties in the condition.
std::uint32_t NeedsOf(const BoundCondition& condition);

/// What the condition lets each property be: the values of an equality; of AND those of either side, of OR those of
/// both together where both restrict the property. A property is listed once, each value too; texts are as the query
/// writes them, to be compared without regard to case. No values at all: nothing can match. Datetimes and NULL restrict
/// nothing.
std::vector<Restriction> RestrictionsOf(const BoundCondition& condition);

/// Whether a text matches a LIKE pattern, without regard to case: % for any characters, _ for one, [abc], [a-z] and
/// [^abc] for one of a set. A ] that is the first of its set belongs to it. A [ that is never closed stands for itself.
bool IsLike(std::u16string_view text, std::u16string_view pattern);

}  // namespace kv::wql
