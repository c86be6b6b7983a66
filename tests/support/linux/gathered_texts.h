// Runs the gather of a class that a test feeds itself.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "facts/system_text.h"
#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"
#include "wql/query.h"

namespace kv::test {

struct Gathered {
    platform::WmiStatus status = 0;
    std::vector<std::string> objects;  // the values of the properties, each with "|" behind it
    std::vector<std::string> notices;
};

/// The objects that a routine gathers in place of a class's own. names: of properties, with blanks between them.
inline Gathered GatherTexts(std::u16string_view className, std::string_view names, wql::GatherRoutine gather) {
    wql::ClassInfo classInfo = *wql::FindClass(className);
    classInfo.gather = gather;
    wql::ClassQuery query{.classInfo = &classInfo, .properties = {}, .where = std::nullopt};
    for (std::string_view name = facts::TakeField(names); !name.empty(); name = facts::TakeField(names)) {
        const wql::PropertyInfo* property = wql::FindProperty(classInfo, platform::WideFromUtf8(name));
        EXPECT_NE(property, nullptr) << name;
        if (property != nullptr) query.properties.push_back(property);
    }
    Gathered gathered;
    const auto add = [&](const wql::ResultObject& object) {
        std::string& texts = gathered.objects.emplace_back();
        for (const auto& [name, value] : object) texts += VariantText(value) + "|";
    };
    const auto note = [&](std::string text) { gathered.notices.push_back(std::move(text)); };
    gathered.status = wql::RunQuery({classInfo.name, {query}}, {add, [] { return true; }, note});
    return gathered;
}

/// The same, of a gather that must succeed.
inline std::vector<std::string> GatheredTexts(std::u16string_view className, std::string_view names,
                                              wql::GatherRoutine gather) {
    Gathered gathered = GatherTexts(className, names, gather);
    EXPECT_EQ(gathered.status, 0U);
    return gathered.objects;
}

}  // namespace kv::test
