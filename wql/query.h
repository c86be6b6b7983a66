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
    std::vector<ClassQuery> parts;     // the class that the query names, and those that inherit from it
    const ClassInfo* named = nullptr;  // that class
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

/// Fails as BindCondition does, with invalidClass if there is no such class, with notSupported for the class of all
/// classes, and with invalidQuery for a property that the class lacks. SELECT may name system properties (__CLASS and
/// the like), but the results do not have them.
WmiStatus BindQuery(const WqlQuery& query, BoundQuery& bound);

/// What the classes demand of a query (DemandRoutine), as GatherRows would find it: the failure, and its notice.
WmiStatus JudgeDemands(const BoundQuery& query, const std::function<void(std::string text)>& notice);

/// Takes an object as its class's row record, which is valid until this returns.
using RowSink = std::function<void(const ClassQuery& query, const void* row)>;

/// Gathers the row records that match, and stops when no more are wanted. A failure of the class that the query names
/// ends the run, after the objects so far. That of a subclass costs only its own objects, and a notice names it; if all
/// fail, the first failure is the result. Of the sink, `object` is not used.
WmiStatus GatherRows(const BoundQuery& query, const ResultSink& sink, const RowSink& take);

/// The properties of an object that a query asks for.
ResultObject ObjectOf(const ClassQuery& query, const void* row);

/// GatherRows whose rows go to the sink as objects.
WmiStatus RunQuery(const BoundQuery& query, const ResultSink& sink);

}  // namespace kv::wql
