// The values and the ranges that a condition leaves each property, as a whole and in each way to match it.
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

/// Numbers by what they are worth, texts by their letters: a class may tell upper case from lower.
bool StandsBefore(const CimValue& left, const CimValue& right) {
    const auto* leftText = std::get_if<std::u16string>(&left.held);
    const auto* rightText = std::get_if<std::u16string>(&right.held);
    return leftText != nullptr && rightText != nullptr ? *leftText < *rightText : CompareValues(left, right) < 0;
}

void DropRepeated(std::vector<CimValue>& values) {
    std::sort(values.begin(), values.end(), StandsBefore);
    const auto repeated = std::unique(values.begin(), values.end(), [](const CimValue& left, const CimValue& right) {
        return !StandsBefore(left, right) && !StandsBefore(right, left);
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

using Ranges = std::vector<Range>;

Range* FindRange(Ranges& ranges, std::u16string_view property) {
    const auto found =
        std::find_if(ranges.begin(), ranges.end(), [property](const Range& one) { return one.property == property; });
    return found == ranges.end() ? nullptr : &*found;
}

Ranges RangeOfComparison(const BoundComparison& comparison) {
    if (comparison.property == nullptr || comparison.value.isNull()) return {};
    Range range{.property = comparison.property->name};
    switch (comparison.compare) {
        case ComparisonOperator::equal:
            range.lowest = range.highest = comparison.value;
            break;
        case ComparisonOperator::less:
        case ComparisonOperator::lessOrEqual:
            range.highest = comparison.value;
            break;
        case ComparisonOperator::greater:
        case ComparisonOperator::greaterOrEqual:
            range.lowest = comparison.value;
            break;
        default:
            return {};
    }
    return {std::move(range)};
}

/// For AND: the higher of the lower ends, and the lower of the upper ones.
void Intersect(Ranges& ranges, Ranges others) {
    for (Range& other : others) {
        Range* present = FindRange(ranges, other.property);
        if (present == nullptr) {
            ranges.push_back(std::move(other));
            continue;
        }
        if (present->lowest.isNull() || CompareValues(other.lowest, present->lowest) > 0)
            present->lowest = other.lowest;
        if (present->highest.isNull() || CompareValues(other.highest, present->highest) < 0)
            present->highest = other.highest;
    }
}

/// For OR: each end that both sides have, the lower of the lower ends and the higher of the upper ones.
void Span(Ranges& ranges, Ranges others) {
    for (Range& range : ranges) {
        const Range* other = FindRange(others, range.property);
        const Range unbounded{.property = range.property};
        const Range& second = other != nullptr ? *other : unbounded;
        if (second.lowest.isNull() || CompareValues(second.lowest, range.lowest) < 0) range.lowest = second.lowest;
        if (second.highest.isNull() || CompareValues(second.highest, range.highest) > 0) range.highest = second.highest;
    }
    std::erase_if(ranges, [](const Range& range) { return range.lowest.isNull() && range.highest.isNull(); });
}

Ranges RangesOfOperands(const BoundCondition& condition, void (*join)(Ranges&, Ranges)) {
    Ranges ranges = RangesOf(condition.operands.front());
    for (auto operand = condition.operands.begin() + 1; operand != condition.operands.end(); ++operand) {
        join(ranges, RangesOf(*operand));
    }
    return ranges;
}

Leeway LeewayOf(const BoundCondition& condition) { return {RestrictionsOf(condition), RangesOf(condition)}; }

void Narrow(Leeway& way, const Leeway& other) {
    Narrow(way.restrictions, other.restrictions);
    Intersect(way.ranges, other.ranges);
}

/// For AND: every combination of a way of one side and one of the other.
void Combine(std::vector<Leeway>& ways, const std::vector<Leeway>& others) {
    if (others.size() == 1) {
        for (Leeway& way : ways) Narrow(way, others.front());
        return;
    }
    const std::vector<Leeway> alone = std::exchange(ways, {});
    for (const Leeway& one : alone) {
        for (const Leeway& other : others) Narrow(ways.emplace_back(one), other);
    }
}

/// The ways of AND and OR. Empty if there are too many.
std::vector<Leeway> WaysOfOperands(const BoundCondition& condition) {
    constexpr std::size_t mostWays = 200;
    const bool isConjunction = condition.form == BoundCondition::Form::conjunction;
    std::vector<Leeway> ways(isConjunction ? 1 : 0);
    for (const BoundCondition& operand : condition.operands) {
        std::vector<Leeway> others = AlternativesOf(operand);
        const std::size_t count = isConjunction ? ways.size() * others.size() : ways.size() + others.size();
        if (count > mostWays) return {};
        if (isConjunction) {
            Combine(ways, others);
        } else {
            std::move(others.begin(), others.end(), std::back_inserter(ways));
        }
    }
    return ways;
}

}  // namespace

std::vector<Leeway> AlternativesOf(const BoundCondition& condition) {
    const bool hasWays =
        condition.form == BoundCondition::Form::conjunction || condition.form == BoundCondition::Form::disjunction;
    std::vector<Leeway> ways;
    if (hasWays) ways = WaysOfOperands(condition);
    if (ways.empty()) ways.push_back(LeewayOf(condition));
    return ways;
}

std::vector<Range> RangesOf(const BoundCondition& condition) {
    switch (condition.form) {
        case BoundCondition::Form::comparison:
            return RangeOfComparison(condition.comparison);
        case BoundCondition::Form::conjunction:
            return RangesOfOperands(condition, Intersect);
        case BoundCondition::Form::disjunction:
            return RangesOfOperands(condition, Span);
        default:
            return {};
    }
}

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
