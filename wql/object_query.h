// Queries for objects by what they are called.
#pragma once

#include "wql/object_path.h"
#include "wql/query.h"

namespace kv::wql {

/// All properties of a class.
std::vector<const PropertyInfo*> AllProperties(const ClassInfo& classInfo);

/// Binds a query for the object that a path names, with these properties of its class. A path may name it by a
/// superclass. invalidClass if there is no such class; invalidObjectPath if the path does not have exactly the class's
/// keys, each with a value that it can have.
WmiStatus BindObject(const ObjectName& object, std::vector<const PropertyInfo*> (*propertiesOf)(const ClassInfo&),
                     BoundQuery& bound);

}  // namespace kv::wql
