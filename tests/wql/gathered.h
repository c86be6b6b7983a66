// A class whose objects another routine gathers, so that a test can feed it what this machine does not have.
#pragma once

#include <string>
#include <string_view>

#include "facts/system_text.h"
#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"
#include "wql/query.h"

namespace kv::test {

struct Gathered {
    wql::WmiStatus status = 0;
    std::string objects;  // of each object the values named, a bar behind each, and a line end
    std::vector<std::string> notices;
};

/// Gathers what a query asks for: "SELECT names FROM class WHERE ...".
inline Gathered GatherFor(std::string_view query, wql::GatherRoutine gather) {
    wql::BoundQuery bound;
    Gathered gathered;
    gathered.status = wql::PrepareQuery(platform::WideFromUtf8(query), bound);
    if (bound.parts.empty()) return gathered;
    wql::ClassInfo classInfo = *bound.parts.front().classInfo;
    classInfo.gather = gather;
    bound.parts.front().classInfo = &classInfo;
    std::string_view names = query.substr(0, query.find(" FROM "));
    facts::TakeField(names);
    wql::ResultSink sink;
    sink.wantsMore = [] { return true; };
    sink.notice = [&](const std::string& text) { gathered.notices.push_back(text); };
    sink.object = [&](const wql::ResultObject& object) {
        std::string_view left = names;
        for (std::string_view name = facts::TakeField(left); !name.empty(); name = facts::TakeField(left)) {
            if (name.ends_with(',')) name.remove_suffix(1);
            for (const auto& [property, value] : object) {
                if (platform::Utf8FromWide(property) == name) gathered.objects += VariantText(value) + "|";
            }
        }
        gathered.objects += '\n';
    };
    gathered.status = wql::RunQuery(bound, sink);
    return gathered;
}

}  // namespace kv::test
