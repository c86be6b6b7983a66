#include "wql/condition.h"

#include <algorithm>
#include <compare>
#include <utility>

#include "wql/class_tree.h"
#include "wql/object_path.h"
#include "wql/system_properties.h"
#include "wql/wql_token.h"

namespace kv::wql {

namespace {

bool Holds(ComparisonOperator compare, std::partial_ordering order) {
    switch (compare) {
        case ComparisonOperator::equal:
            return order == 0;
        case ComparisonOperator::notEqual:
            return order != 0;
        case ComparisonOperator::less:
            return order < 0;
        case ComparisonOperator::greater:
            return order > 0;
        case ComparisonOperator::lessOrEqual:
            return order <= 0;
        default:
            return order >= 0;
    }
}

bool NameTheSame(std::u16string_view left, std::u16string_view right) {
    const std::optional<ObjectName> first = ParseObjectPath(left);
    const std::optional<ObjectName> second = ParseObjectPath(right);
    return first && second && AreSame(*first, *second);
}

/// The order of a property's value and what it is compared with. Datetimes compare as moments. References are only the
/// same or not.
std::partial_ordering OrderOf(CimType type, const CimValue& value, const CimValue& other) {
    if (type != CimType::datetime && type != CimType::reference) return CompareValues(value, other);
    const std::u16string_view text = std::get<std::u16string>(value.held);
    if (type == CimType::datetime) return CompareValues(MicrosecondsOfDmtf(text), other);
    const bool areSame = NameTheSame(text, std::get<std::u16string>(other.held));
    return areSame ? std::partial_ordering::equivalent : std::partial_ordering::less;
}

/// The result for a value of the declared type.
Truth Compare(CimType type, const CimValue& value, const BoundComparison& comparison) {
    if (comparison.value.isNull()) return value.isNull() == (comparison.compare == ComparisonOperator::equal);
    if (value.isNull()) return std::nullopt;
    if (comparison.compare == ComparisonOperator::like) {
        return IsLike(std::get<std::u16string>(value.held), std::get<std::u16string>(comparison.value.held));
    }
    const std::partial_ordering order = OrderOf(type, value, comparison.value);
    if (order == std::partial_ordering::unordered) return std::nullopt;
    return Holds(comparison.compare, order);
}

/// Not converted to the property's type, so that a number too large for the type compares as what it is.
CimValue BoundNumber(CimType type, const CimValue& value) {
    if (type == CimType::real32) return BroughtTo(type, value);
    if (std::holds_alternative<bool>(value.held)) return BroughtTo(CimType::sint64, value);
    const auto* text = std::get_if<std::u16string>(&value.held);
    return text != nullptr ? NumberOfText(*text) : value;
}

CimValue BoundMoment(const CimValue& value) {
    const auto* text = std::get_if<std::u16string>(&value.held);
    return text != nullptr ? MicrosecondsOfQueryText(*text) : CimValue();
}

/// The path of an object.
CimValue BoundReference(const CimValue& value) {
    const auto* text = std::get_if<std::u16string>(&value.held);
    return text != nullptr && ParseObjectPath(*text) ? value : CimValue();
}

/// TRUE, FALSE, 1 or 0, in quotes or not.
CimValue BoundTruth(const CimValue& value) {
    CimValue truth = BroughtTo(CimType::boolean, value);
    const CimValue number = BoundNumber(CimType::sint64, value);
    const bool isOther = !number.isNull() && CompareValues(truth, number) != 0;
    return isOther ? CimValue() : truth;
}

/// Converts a literal's value to one to compare with; NULL if it does not suit the property.
CimValue BoundValue(CimType type, const CimValue& value) {
    if (IsArray(type)) return {};
    if (type == CimType::datetime) return BoundMoment(value);
    if (type == CimType::boolean) return BoundTruth(value);
    if (type == CimType::reference) return BoundReference(value);
    if (type == CimType::string) return BroughtTo(type, value);
    return BoundNumber(type, value);
}

bool IsOrder(ComparisonOperator compare) {
    return compare != ComparisonOperator::equal && compare != ComparisonOperator::notEqual;
}

WmiStatus BindLiteral(const Comparison& comparison, CimType type, BoundComparison& bound) {
    bound.compare = comparison.compare;
    if (std::holds_alternative<NullLiteral>(comparison.literal)) return wmi_status::ok;
    if (comparison.compare == ComparisonOperator::like && type != CimType::string) return wmi_status::invalidQuery;
    const bool hasOrder = type != CimType::boolean && type != CimType::reference;
    if (!hasOrder && IsOrder(comparison.compare)) return wmi_status::invalidQuery;
    bound.value = BoundValue(type, ValueOfLiteral(comparison.literal));
    return bound.value.isNull() ? wmi_status::invalidQuery : wmi_status::ok;
}

WmiStatus BindConstant(const Comparison& comparison, const ClassFact& fact, BoundComparison& bound) {
    const WmiStatus status = BindLiteral(comparison, fact.type, bound);
    if (!IsFailure(status)) bound.constant = Compare(fact.type, fact.value, bound);
    return status;
}

WmiStatus BindSystemProperty(const Comparison& comparison, const ClassInfo& classInfo, BoundComparison& bound) {
    if (comparison.compare == ComparisonOperator::isA) {
        bound.constant = IsA(classInfo, std::get<std::u16string>(comparison.literal));
        return CompareNames(comparison.property, u"__THIS") == 0 ? wmi_status::ok : wmi_status::invalidQuery;
    }
    if (const std::optional<ClassFact> fact = ClassFactOf(classInfo, comparison.property)) {
        return BindConstant(comparison, *fact, bound);
    }
    bound.path = PathProperty(classInfo, comparison.property);
    bound.property = bound.path.get();
    return bound.path != nullptr ? BindLiteral(comparison, CimType::string, bound) : wmi_status::invalidQuery;
}

/// A property of an embedded object. No property here holds one, so that there is nothing to compare with.
bool IsEmbedded(const Comparison& comparison) { return comparison.property.find(u'.') != std::u16string::npos; }

WmiStatus BindComparison(const Comparison& comparison, const ClassInfo& classInfo, BoundComparison& bound) {
    if (IsEmbedded(comparison)) return wmi_status::ok;
    if (comparison.property.starts_with(u"__")) return BindSystemProperty(comparison, classInfo, bound);
    bound.property = FindProperty(classInfo, comparison.property);
    if (bound.property == nullptr || comparison.compare == ComparisonOperator::isA) return wmi_status::invalidQuery;
    return BindLiteral(comparison, bound.property->type, bound);
}

WmiStatus BindOperands(const std::vector<ConditionPtr>& operands, const ClassInfo& classInfo, BoundCondition& bound) {
    WmiStatus status = wmi_status::ok;
    bound.operands.reserve(operands.size());
    for (auto operand = operands.begin(); operand != operands.end() && !IsFailure(status); ++operand) {
        status = BindCondition(**operand, classInfo, bound.operands.emplace_back());
    }
    return status;
}

ComparisonOperator OppositeOf(ComparisonOperator compare) {
    using enum ComparisonOperator;
    switch (compare) {
        case equal:
            return notEqual;
        case notEqual:
            return equal;
        case less:
            return greaterOrEqual;
        case greater:
            return lessOrEqual;
        case lessOrEqual:
            return greater;
        default:
            return less;
    }
}

/// The opposite of a comparison other than LIKE.
void Negate(BoundComparison& comparison) {
    using enum ComparisonOperator;
    if (comparison.property == nullptr) {
        if (comparison.constant) comparison.constant = !*comparison.constant;
    } else if (comparison.value.isNull()) {  // IS NULL is equal; every other operator means IS NOT NULL
        comparison.compare = comparison.compare == equal ? notEqual : equal;
    } else {
        comparison.compare = OppositeOf(comparison.compare);
    }
}

/// Turns a condition into its opposite, which is true where it was false. NOT is left before LIKE only, so that it can
/// be seen what a condition leaves the properties.
void Negate(BoundCondition& condition) {
    using Form = BoundCondition::Form;
    if (condition.form == Form::conjunction || condition.form == Form::disjunction) {
        condition.form = condition.form == Form::conjunction ? Form::disjunction : Form::conjunction;
        for (BoundCondition& operand : condition.operands) Negate(operand);
    } else if (condition.form == Form::negation) {
        condition = BoundCondition(std::move(condition.operands.front()));
    } else if (condition.comparison.compare == ComparisonOperator::like && condition.comparison.property != nullptr) {
        BoundCondition like = std::exchange(condition, {.form = Form::negation, .comparison = {}, .operands = {}});
        condition.operands.push_back(std::move(like));
    } else {
        Negate(condition.comparison);
    }
}

/// An object's row record, and the property that was read last: the next comparison is often with the same one.
struct RowReader {
    const void* row = nullptr;
    const PropertyInfo* property = nullptr;
    CimValue value;
};

const CimValue& ReadProperty(RowReader& reader, const PropertyInfo& property) {
    if (reader.property != &property) {
        reader.value =
            property.read == nullptr ? CimValue() : BroughtTo(property.type, property.read(reader.row, property));
        reader.property = &property;
    }
    return reader.value;
}

Truth Evaluate(const BoundCondition& condition, RowReader& reader);

Truth Evaluate(const BoundComparison& comparison, RowReader& reader) {
    if (comparison.property == nullptr) return comparison.constant;
    return Compare(comparison.property->type, ReadProperty(reader, *comparison.property), comparison);
}

/// AND stops at false and OR at true, the decisive truth. Without one, an operand that is neither makes the whole
/// neither.
Truth EvaluateOperands(const BoundCondition& condition, bool decisive, RowReader& reader) {
    Truth result = !decisive;
    for (const BoundCondition& operand : condition.operands) {
        const Truth truth = Evaluate(operand, reader);
        if (truth == decisive) return decisive;
        if (!truth) result = std::nullopt;
    }
    return result;
}

Truth Evaluate(const BoundCondition& condition, RowReader& reader) {
    switch (condition.form) {
        case BoundCondition::Form::comparison:
            return Evaluate(condition.comparison, reader);
        case BoundCondition::Form::conjunction:
            return EvaluateOperands(condition, false, reader);
        case BoundCondition::Form::disjunction:
            return EvaluateOperands(condition, true, reader);
        default:
            break;
    }
    const Truth truth = Evaluate(condition.operands.front(), reader);
    return truth ? !*truth : truth;
}

}  // namespace

WmiStatus BindCondition(const Condition& condition, const ClassInfo& classInfo, BoundCondition& bound) {
    if (const auto* comparison = std::get_if<Comparison>(&condition.form)) {
        return BindComparison(*comparison, classInfo, bound.comparison);
    }
    if (const auto* negation = std::get_if<Negation>(&condition.form)) {
        const WmiStatus status = BindCondition(*negation->operand, classInfo, bound);
        if (!IsFailure(status)) Negate(bound);
        return status;
    }
    if (const auto* conjunction = std::get_if<Conjunction>(&condition.form)) {
        bound.form = BoundCondition::Form::conjunction;
        return BindOperands(conjunction->operands, classInfo, bound);
    }
    bound.form = BoundCondition::Form::disjunction;
    return BindOperands(std::get<Disjunction>(condition.form).operands, classInfo, bound);
}

std::optional<BoundCondition> BindEquality(const PropertyInfo& property, const CimValue& value) {
    BoundCondition condition;
    condition.comparison.property = &property;
    condition.comparison.value = BoundValue(property.type, value);
    return condition.comparison.value.isNull() ? std::nullopt : std::optional(std::move(condition));
}

bool Matches(const BoundCondition& condition, const void* row) {
    RowReader reader{.row = row, .value = {}};
    return Evaluate(condition, reader) == true;
}

bool CanMatch(const BoundCondition& condition) {
    switch (condition.form) {
        case BoundCondition::Form::comparison:
            return condition.comparison.property != nullptr || condition.comparison.constant == true;
        case BoundCondition::Form::conjunction:
            return std::all_of(condition.operands.begin(), condition.operands.end(), CanMatch);
        case BoundCondition::Form::disjunction:
            return std::any_of(condition.operands.begin(), condition.operands.end(), CanMatch);
        default:
            return true;
    }
}

std::uint32_t NeedsOf(const BoundCondition& condition) {
    std::uint32_t needs = condition.comparison.property != nullptr ? condition.comparison.property->needs : 0;
    for (const BoundCondition& operand : condition.operands) needs |= NeedsOf(operand);
    return needs;
}

}  // namespace kv::wql
