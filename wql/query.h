// A query bound to the classes that it reads, and its run.
//
// An abstract class stands for its subclasses, whose objects come with all their properties. Names in SELECT and WHERE
// must be properties of the class that the query names.
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
    std::function<bool()> wantsMore;               // false when nobody waits for more objects
    std::function<void(std::string text)> notice;  // UTF-8
};

/// Parses a query and binds it. Fails as ParseWql and BindCondition do, with invalidClass if there is no such class,
/// and with invalidQuery for a property that the class lacks. SELECT may name system properties (__CLASS and the like),
/// but the results do not have them.
WmiStatus PrepareQuery(std::u16string_view text, BoundQuery& query);

/// Gathers the objects that match, and stops when no more are wanted. Of several classes, one whose gather fails costs
/// only its own objects, and a notice names it. If all fail, the first failure is the result.
WmiStatus RunQuery(const BoundQuery& query, const ResultSink& sink);

}  // namespace kv::wql
