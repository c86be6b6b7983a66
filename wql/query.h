// A query bound to the classes it is about, and its run.
//
// A class without objects of its own stands for its subclasses, whose objects come with all their properties; names in
// SELECT and WHERE are those of the class that the query names.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wql/condition.h"
#include "wql/wmi_class.h"
#include "wql/wql_query.h"

namespace kv::wql {

/// What a query asks of one class that has objects.
struct ClassQuery {
    const ClassInfo* classInfo = nullptr;
    std::vector<const PropertyInfo*> properties;  // in the order of the class's table
    std::optional<BoundCondition> where;
};

struct BoundQuery {
    std::u16string_view className;  // as declared
    std::vector<ClassQuery> parts;
};

/// One object as the agent gets it.
struct ResultProperty {
    std::u16string_view name;
    platform::Variant value;
};
using ResultObject = std::vector<ResultProperty>;

struct ResultSink {
    std::function<void(ResultObject object)> object;
    std::function<bool()> wantsMore;               // false: nobody waits for more objects
    std::function<void(std::string text)> notice;  // UTF-8
};

/// Parses and binds. Fails as ParseWql and BindCondition do; invalidClass if there is no such class, invalidQuery for a
/// property that it lacks. System properties (__CLASS and the like) may be named in SELECT; they are not among the
/// results.
WmiStatus PrepareQuery(std::u16string_view text, BoundQuery& query);

/// Gathers the objects that match. The first failure of a class's gather ends the run, after the objects so far.
WmiStatus RunQuery(const BoundQuery& query, const ResultSink& sink);

}  // namespace kv::wql
