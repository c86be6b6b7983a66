// The values that a condition leaves each property.
#include <algorithm>
#include <iterator>
#include <utility>

#include "wql/condition.h"

namespace kv::wql {

namespace {

using Restrictions = std::vector<Restriction>;

Restriction* FindRestriction(Restrictions& restrictions, std::u16string_view property) {
    const auto found = std::find_if(restrictions.begin(), restrictions.end(),
                                    [property](const Restriction& one) { return one.property == property; });
    return found == restrictions.end() ? nullptr : &*found;
}

void DropRepeated(std::vector<CimValue>& values) {
    std::sort(values.begin(), values.end(),
              [](const CimValue& left, const CimValue& right) { return CompareValues(left, right) < 0; });
    const auto repeated = std::unique(values.begin(), values.end(), [](const CimValue& left, const CimValue& right) {
        return CompareValues(left, right) == 0;
    });
    values.erase(repeated, values.end());
}

Restrictions OfComparison(const BoundComparison& comparison) {
    const PropertyInfo* property = comparison.property;
    if (property == nullptr || comparison.compare != ComparisonOperator::equal || comparison.value.isNull() ||
        property->type == CimType::datetime) {
        return {};
    }
    Restriction restriction{.property = property->name, .values = {}};
    CimValue held = BroughtTo(property->type, comparison.value);
    if (CompareValues(held, comparison.value) == 0) restriction.values.push_back(std::move(held));
    return {std::move(restriction)};
}

/// For AND: if both sides restrict a property, the side with fewer values.
void Narrow(Restrictions& restrictions, Restrictions others) {
    for (Restriction& other : others) {
        Restriction* present = FindRestriction(restrictions, other.property);
        if (present == nullptr) {
            restrictions.push_back(std::move(other));
        } else if (other.values.size() < present->values.size()) {
            *present = std::move(other);
        }
    }
}

/// For OR: the properties that both sides restrict, with the values of both.
void Widen(Restrictions& restrictions, Restrictions others) {
    Restrictions both;
    for (Restriction& restriction : restrictions) {
        Restriction* other = FindRestriction(others, restriction.property);
        if (other == nullptr) continue;
        restriction.values.insert(restriction.values.end(), std::move_iterator(other->values.begin()),
                                  std::move_iterator(other->values.end()));
        both.push_back(std::move(restriction));
    }
    restrictions = std::move(both);
}

Restrictions OfOperands(const BoundCondition& condition, void (*join)(Restrictions&, Restrictions)) {
    Restrictions restrictions = RestrictionsOf(condition.operands.front());
    for (auto operand = condition.operands.begin() + 1; operand != condition.operands.end(); ++operand) {
        join(restrictions, RestrictionsOf(*operand));
    }
    for (Restriction& restriction : restrictions) DropRepeated(restriction.values);
    return restrictions;
}

}  // namespace

std::vector<Restriction> RestrictionsOf(const BoundCondition& condition) {
    switch (condition.form) {
        case BoundCondition::Form::comparison:
            return OfComparison(condition.comparison);
        case BoundCondition::Form::conjunction:
            return OfOperands(condition, Narrow);
        case BoundCondition::Form::disjunction:
            return OfOperands(condition, Widen);
        default:
            return {};
    }
}

}  // namespace kv::wql
