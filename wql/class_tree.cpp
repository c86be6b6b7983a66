#include "wql/class_tree.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "platform/name_pattern.h"

namespace kv::wql {

namespace {

// Initialised before any constructor runs, so that families may register in any order.
constinit const ClassFamily* lastFamily = nullptr;

std::vector<const ClassInfo*> CollectClasses() {
    std::vector<const ClassInfo*> classes;
    for (const ClassFamily* family = lastFamily; family != nullptr; family = family->before()) {
        for (const ClassInfo& member : family->list()) classes.push_back(&member);
    }
    // Families come as the linker has placed them, and a query for a superclass shows the order.
    std::sort(classes.begin(), classes.end(),
              [](const ClassInfo* left, const ClassInfo* right) { return CompareNames(left->name, right->name) < 0; });
    return classes;
}

}  // namespace

ClassFamily::ClassFamily(List routine) noexcept : list_(routine), before_(std::exchange(lastFamily, this)) {}

const std::vector<const ClassInfo*>& AllClasses() {
    static const auto& classes = *new std::vector<const ClassInfo*>(CollectClasses());
    return classes;
}

int CompareNames(std::u16string_view left, std::u16string_view right) {
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t at = 0; at < common; ++at) {
        if (left[at] == right[at]) continue;
        const int difference = platform::UpperCaseOf(left[at]) - platform::UpperCaseOf(right[at]);
        if (difference != 0) return difference;
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

const ClassInfo* FindClass(std::u16string_view name) {
    const auto found = std::lower_bound(
        AllClasses().begin(), AllClasses().end(), name,
        [](const ClassInfo* one, std::u16string_view wanted) { return CompareNames(one->name, wanted) < 0; });
    return found != AllClasses().end() && CompareNames((*found)->name, name) == 0 ? *found : nullptr;
}

const PropertyInfo* FindProperty(const ClassInfo& classInfo, std::u16string_view name) {
    const auto found = std::lower_bound(classInfo.properties.begin(), classInfo.properties.end(), name,
                                        [](const PropertyInfo& property, std::u16string_view wanted) {
                                            return CompareNames(property.name, wanted) < 0;
                                        });
    return found != classInfo.properties.end() && CompareNames(found->name, name) == 0 ? &*found : nullptr;
}

std::vector<const PropertyInfo*> KeyProperties(const ClassInfo& classInfo) {
    std::vector<const PropertyInfo*> keys;
    for (std::u16string_view rest = classInfo.keys; !rest.empty();) {
        const std::size_t end = std::min(rest.find(u','), rest.size());
        if (const PropertyInfo* key = FindProperty(classInfo, rest.substr(0, end))) keys.push_back(key);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return keys;
}

namespace {

/// In place of an index among AllClasses.
constexpr std::size_t noClass = SIZE_MAX;

/// For each of AllClasses the index of its superclass, which a search by names would take long to find for every query.
const std::vector<std::size_t>& SuperclassIndexes() {
    static const auto& indexes = *new std::vector<std::size_t>([] {
        const auto& all = AllClasses();
        std::vector<std::size_t> made;
        for (const ClassInfo* one : all) {
            const ClassInfo* const super = one->superclass.empty() ? nullptr : FindClass(one->superclass);
            const auto at = std::find(all.begin(), all.end(), super);
            made.push_back(at == all.end() ? noClass : static_cast<std::size_t>(at - all.begin()));
        }
        return made;
    }());
    return indexes;
}

}  // namespace

std::vector<const ClassInfo*> ClassesOf(const ClassInfo& classInfo) {
    const auto& all = AllClasses();
    std::vector<const ClassInfo*> classes;
    for (std::size_t i = 0; i < all.size(); ++i) {
        std::size_t at = all[i]->gather != nullptr ? i : noClass;
        while (at != noClass && all[at] != &classInfo) at = SuperclassIndexes()[at];
        if (at != noClass) classes.push_back(all[i]);
    }
    return classes;
}

bool IsA(const ClassInfo& classInfo, std::u16string_view name) {
    const ClassInfo* at = &classInfo;
    while (at != nullptr && CompareNames(at->name, name) != 0) {
        at = at->superclass.empty() ? nullptr : FindClass(at->superclass);
    }
    return at != nullptr;
}

}  // namespace kv::wql
