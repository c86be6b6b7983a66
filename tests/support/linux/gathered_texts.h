// Runs the gather of a class that a test feeds itself, such as files that stand for those of a system.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "facts/system_text.h"
#include "tests/support/test_folder.h"
#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"
#include "wql/query.h"
#include "wql/system_properties.h"

namespace kv::test {

/// Parses a data query and binds it.
inline platform::WmiStatus BindText(std::string_view query, wql::BoundQuery& bound) {
    wql::WqlStatement statement;
    const platform::WmiStatus status = wql::ParseWql(platform::WideFromUtf8(query), statement);
    return platform::IsFailure(status) ? status : wql::BindQuery(std::get<wql::WqlQuery>(statement), bound);
}

struct Gathered {
    platform::WmiStatus status = 0;
    std::vector<std::string> objects;  // the values of the properties, each with "|" behind it
    std::vector<std::string> notices;
};

inline std::string Outcome(const Gathered& gathered) {
    return OutcomeText(gathered.status, gathered.objects.size(), gathered.notices);
}

/// The objects that a routine gathers in place of a class's own. names: of properties, or __PATH and __RELPATH, with
/// blanks between them. where: "WHERE ..." of a query, or nothing.
inline Gathered GatherTexts(std::u16string_view className, std::string_view names, wql::GatherRoutine gather,
                            std::string_view where = {}) {
    wql::ClassInfo classInfo = *wql::FindClass(className);
    classInfo.gather = gather;
    wql::ClassQuery query{.classInfo = &classInfo, .properties = {}, .where = std::nullopt};
    std::vector<std::shared_ptr<const wql::PropertyInfo>> paths;
    for (std::string_view name = facts::TakeField(names); !name.empty(); name = facts::TakeField(names)) {
        const std::u16string wide = platform::WideFromUtf8(name);
        paths.push_back(wql::PathProperty(classInfo, wide));
        const wql::PropertyInfo* property = paths.back() ? paths.back().get() : wql::FindProperty(classInfo, wide);
        EXPECT_NE(property, nullptr) << name;
        if (property != nullptr) query.properties.push_back(property);
    }
    if (!where.empty()) {
        wql::BoundQuery bound;
        std::string text = "SELECT * FROM " + platform::Utf8FromWide(className) + " ";
        EXPECT_EQ(BindText(text.append(where), bound), 0U) << where;
        if (!bound.parts.empty()) query.where = std::move(bound.parts.front().where);
    }
    Gathered gathered;
    const auto add = [&](const wql::ResultObject& object) {
        std::string& texts = gathered.objects.emplace_back();
        for (const auto& [name, value] : object) texts += VariantText(value) + "|";
    };
    const auto note = [&](std::string text) { gathered.notices.push_back(std::move(text)); };
    gathered.status = wql::RunQuery({.parts = {query}, .named = &classInfo}, {add, [] { return true; }, note});
    return gathered;
}

/// The objects, each with a line end behind it.
inline std::string LinesOf(const Gathered& gathered) {
    std::string lines;
    for (const std::string& object : gathered.objects) lines += object + "\n";
    return lines;
}

/// The objects of a gather that must succeed.
inline std::vector<std::string> GatheredTexts(std::u16string_view className, std::string_view names,
                                              wql::GatherRoutine gather) {
    Gathered gathered = GatherTexts(className, names, gather);
    EXPECT_EQ(gathered.status, 0U);
    return gathered.objects;
}

/// A fixture whose working directory stands for a folder of the system, such as / or /proc, that gathers read.
class FrozenFiles : public TestFolder {
  protected:
    FrozenFiles() {
        platform::InstallWmi();
        root = work.string();
    }

    /// files: lines of path=content, below a folder.
    static void WriteAll(const std::filesystem::path& below, std::string_view files) {
        for (std::string_view line; facts::TakeLine(files, line);) {
            const std::size_t equals = line.find('=');
            Write(below / line.substr(0, equals), std::string(line.substr(equals + 1)) + "\n");
        }
    }

    /// gather: takes a Gathering and the folder's path.
    template <auto gather>
    static Gathered Over(std::u16string_view className, std::string_view names, std::string_view where = {}) {
        return GatherTexts(
            className, names, [](const wql::Gathering& gathering) { return gather(gathering, root); }, where);
    }

    inline static std::string root;  // of the current test: a gather is a plain function
};

}  // namespace kv::test
