#include "wql/refusal.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "platform/near_name.h"
#include "wql/associations.h"
#include "wql/class_tree.h"
#include "wql/condition.h"
#include "wql/object_query.h"
#include "wql/query.h"
#include "wql/system_properties.h"

namespace kv::wql {

namespace {

std::u16string Question(std::u16string_view meant) { return u"; did you mean " + std::u16string(meant) + u"?"; }

/// A question for the name that was probably meant; empty if none resembles the written one.
std::u16string QuestionFor(std::u16string_view written, const std::vector<std::u16string_view>& names) {
    const std::u16string_view meant = platform::NearestName(written, names);
    return meant.empty() ? u"" : Question(meant);
}

std::u16string OfUnknownClass(std::u16string_view name) {
    const std::u16string start = u"the class " + std::u16string(name) + u" does not exist";
    if (const ClassInfo* prefixed = FindClass(u"Win32_" + std::u16string(name))) {
        return start + Question(prefixed->name);
    }
    std::vector<std::u16string_view> names;
    for (const ClassInfo* classInfo : AllClasses()) names.push_back(classInfo->name);
    return start + QuestionFor(name, names);
}

std::u16string OfUnknownProperty(const ClassInfo& classInfo, std::u16string_view name) {
    std::vector<std::u16string_view> names;
    for (const PropertyInfo& property : classInfo.properties) names.push_back(property.name);
    return std::u16string(classInfo.name) + u" lacks the property " + std::u16string(name) + QuestionFor(name, names);
}

/// Why a comparison that BindCondition refuses does not suit its property.
std::u16string OfComparison(const ClassInfo& classInfo, const Comparison& comparison) {
    const std::u16string name = comparison.property;
    if (comparison.compare == ComparisonOperator::isA) return u"ISA needs __THIS before it, not " + name;
    if (IsSystemProperty(name)) return u"the system property " + name + u" cannot be compared in this way";
    const PropertyInfo* property = FindProperty(classInfo, name);
    if (property == nullptr) return OfUnknownProperty(classInfo, name);
    const std::u16string typed = name + u" (" + platform::WideFromUtf8(NameOf(property->type)) + u") ";
    if (IsArray(property->type)) return typed + u"is a list, which can only be compared with NULL";
    if (comparison.compare == ComparisonOperator::like) return typed + u"is not a text, which LIKE needs";
    if (property->type == CimType::datetime) {
        return typed + u"is compared with a text that is not a time such as 20260131120000.000000+000";
    }
    const bool hasOrder = property->type != CimType::boolean && property->type != CimType::reference;
    const bool isEquality =
        comparison.compare == ComparisonOperator::equal || comparison.compare == ComparisonOperator::notEqual;
    if (!hasOrder && !isEquality) return typed + u"can only be compared by =, <> and !=";
    return typed + u"is compared with a value that is not of its type";
}

std::u16string OfCondition(const ClassInfo& classInfo, const Condition& condition);

std::u16string OfOperands(const ClassInfo& classInfo, const std::vector<ConditionPtr>& operands) {
    for (const ConditionPtr& operand : operands) {
        std::u16string found = OfCondition(classInfo, *operand);
        if (!found.empty()) return found;
    }
    return {};
}

/// Of the first comparison in a condition that is refused.
std::u16string OfCondition(const ClassInfo& classInfo, const Condition& condition) {
    if (const auto* comparison = std::get_if<Comparison>(&condition.form)) {
        BoundCondition bound;
        return IsFailure(BindCondition(condition, classInfo, bound)) ? OfComparison(classInfo, *comparison) : u"";
    }
    if (const auto* negation = std::get_if<Negation>(&condition.form))
        return OfCondition(classInfo, *negation->operand);
    if (const auto* all = std::get_if<Conjunction>(&condition.form)) return OfOperands(classInfo, all->operands);
    return OfOperands(classInfo, std::get<Disjunction>(condition.form).operands);
}

std::u16string OfStatement(const WqlQuery& query) {
    if (CompareNames(query.className, u"meta_class") == 0) return u"queries for classes (meta_class) are not supported";
    const ClassInfo* classInfo = FindClass(query.className);
    if (classInfo == nullptr) return OfUnknownClass(query.className);
    for (const std::u16string& name : query.properties) {
        const bool isKnown = IsSystemProperty(name) || FindProperty(*classInfo, name) != nullptr;
        if (!isKnown) return OfUnknownProperty(*classInfo, name);
    }
    return query.where ? OfCondition(*classInfo, *query.where) : u"";
}

std::u16string OfStatement(const AssociationQuery& query) {
    for (const std::u16string& name : {query.associationClass, query.resultClass, query.object.className}) {
        if (!name.empty() && FindClass(name) == nullptr) return OfUnknownClass(name);
    }
    if (!IsFailure(CheckAssociations(query))) return {};
    const ClassInfo& classInfo = *FindClass(query.object.className);
    std::u16string keys(classInfo.keys);
    if (keys.empty()) keys = u"=@, or the keys of a subclass";
    return u"the path in braces does not have the keys of " + std::u16string(classInfo.name) + u": " + keys;
}

}  // namespace

std::u16string DescribeRefusal(std::u16string_view text) {
    WqlStatement statement;
    std::u16string complaint;
    if (IsFailure(ParseWql(text, statement, &complaint))) return complaint;
    return std::visit([](const auto& parsed) { return OfStatement(parsed); }, statement);
}

}  // namespace kv::wql
