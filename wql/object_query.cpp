#include "wql/object_query.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "wql/class_tree.h"

namespace kv::wql {

namespace {

/// The key of a class that a path's key stands for; null if there is none.
const PropertyInfo* FindKey(const ClassInfo& classInfo, const PathKey& key) {
    const std::vector<const PropertyInfo*> keys = KeyProperties(classInfo);
    if (key.name.empty()) return keys.size() == 1 ? keys.front() : nullptr;
    const auto found =
        std::ranges::find_if(keys, [&key](const PropertyInfo* one) { return CompareNames(one->name, key.name) == 0; });
    return found != keys.end() ? *found : nullptr;
}

/// The condition that an object of a class has the keys of a path; absent if the path does not fit the class.
std::optional<BoundCondition> KeyCondition(const ClassInfo& classInfo, const ObjectName& object) {
    if (object.keys.size() != KeyProperties(classInfo).size()) return std::nullopt;
    BoundCondition condition{.form = BoundCondition::Form::conjunction, .comparison = {}, .operands = {}};
    std::set<const PropertyInfo*> given;
    for (const PathKey& key : object.keys) {
        const PropertyInfo* property = FindKey(classInfo, key);
        if (property == nullptr || !given.insert(property).second) return std::nullopt;
        std::optional<BoundCondition> equality = BindEquality(*property, key.value);
        if (!equality) return std::nullopt;
        condition.operands.push_back(*std::move(equality));
    }
    return condition;
}

}  // namespace

std::vector<const PropertyInfo*> AllProperties(const ClassInfo& classInfo) {
    std::vector<const PropertyInfo*> properties;
    for (const PropertyInfo& property : classInfo.properties) properties.push_back(&property);
    return properties;
}

WmiStatus BindObject(const ObjectName& object, std::vector<const PropertyInfo*> (*propertiesOf)(const ClassInfo&),
                     BoundQuery& bound) {
    bound.named = FindClass(object.className);
    if (bound.named == nullptr) return wmi_status::invalidClass;
    for (const ClassInfo* classInfo : ClassesOf(*bound.named)) {
        std::optional<BoundCondition> where = KeyCondition(*classInfo, object);
        if (!where) continue;
        if (where->operands.empty()) where.reset();
        bound.parts.push_back({classInfo, propertiesOf(*classInfo), std::move(where)});
    }
    return bound.parts.empty() ? wmi_status::invalidObjectPath : wmi_status::ok;
}

}  // namespace kv::wql
