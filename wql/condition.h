// A WHERE condition bound to a class: properties looked up, literals converted to the properties' types.
//
// A comparison with a property that is NULL is neither true nor false, and NOT does not change that; only IS NULL,
// = NULL and their opposites see NULL. An object matches if the whole condition is true. Texts compare without regard
// to case, datetimes as moments.
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "wql/wmi_class.h"
#include "wql/wql_query.h"

namespace kv::wql {

/// Null: neither true nor false.
using Truth = std::optional<bool>;

struct BoundComparison {
    const PropertyInfo* property = nullptr;  // null: the result is constant
    ComparisonOperator compare = ComparisonOperator::equal;
    CimValue value;  // what the property's value is compared with; for a datetime, microseconds since 1970
    Truth constant;  // the result if it does not depend on the object
    std::shared_ptr<const PropertyInfo> path;  // owns the property if that is __PATH or __RELPATH
};

struct BoundCondition {
    enum class Form { comparison, negation, conjunction, disjunction };  // negation: of a LIKE
    Form form = Form::comparison;
    BoundComparison comparison;
    std::vector<BoundCondition> operands;
};

/// Binds a condition to a class. invalidQuery if the class lacks a property, or if the property cannot be compared with
/// the literal:
/// - A number takes numbers, in quotes or not, and TRUE and FALSE as 1 and 0. A boolean takes TRUE, FALSE, 1 and 0, in
///   quotes or not, and only to be equal or unequal. Text takes everything; a number is written as text. A datetime
///   takes the texts of MicrosecondsOfQueryText. A reference takes paths, and only to be equal or unequal. An array
///   takes only NULL.
/// - LIKE needs text, and ISA needs __THIS.
/// - Of the system properties, __PATH and __RELPATH are the object's; the others depend only on its class.
/// - A property of an embedded object (Name.Other) does not exist here: the result is neither true nor false.
WmiStatus BindCondition(const Condition& condition, const ClassInfo& classInfo, BoundCondition& bound);

/// The condition that a property has a value; absent if it cannot, by the rules of BindCondition.
std::optional<BoundCondition> BindEquality(const PropertyInfo& property, const CimValue& value);

/// Whether an object, given as its row record, matches.
bool Matches(const BoundCondition& condition, const void* row);

/// False if no object of the class can match, because the condition asks for another class.
bool CanMatch(const BoundCondition& condition);

/// The needs of all properties in the condition.
std::uint32_t NeedsOf(const BoundCondition& condition);

/// The values that the condition leaves each property: for an equality its value; for AND those of the side with fewer;
/// for OR those of both sides, if both restrict the property. Each property and each value is listed once; texts are as
/// the query writes them, to be compared without regard to case. With an empty list of values nothing can match.
/// Datetimes, LIKE and NULL restrict nothing.
std::vector<Restriction> RestrictionsOf(const BoundCondition& condition);

/// The range that the condition leaves each property, listed once: for =, <, >, <= and >= what lies on that side of the
/// value, the value included; for AND what both sides leave; for OR all from the lowest to the highest that either side
/// leaves, if both have that end. LIKE and NULL leave the property any value.
std::vector<Range> RangesOf(const BoundCondition& condition);

/// What the condition leaves the properties in each way in which it may be true: one for each operand of OR, and for
/// AND one for each combination of its operands' ways. If there would be more than two hundred, one for the whole.
std::vector<Leeway> AlternativesOf(const BoundCondition& condition);

/// Whether a text matches a LIKE pattern, without regard to case: % stands for any number of characters, _ for one,
/// [abc], [a-z] and [^abc] for one of a set. A ] that comes first in a set is part of it. A [ that is never closed
/// stands for itself.
bool IsLike(std::u16string_view text, std::u16string_view pattern);

}  // namespace kv::wql
