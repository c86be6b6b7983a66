// The properties that every object has: what it is called and what it is an object of. Records never show them, but a
// query may select them and test them.
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "wql/object_path.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Whether this is the name of a system property, such as __PATH.
bool IsSystemProperty(std::u16string_view name);

/// A system property that is the same for all objects of a class.
struct ClassFact {
    CimType type = CimType::string;
    CimValue value;
};

/// Absent for __PATH and __RELPATH, and for a name that is not a system property's.
std::optional<ClassFact> ClassFactOf(const ClassInfo& classInfo, std::u16string_view name);

/// __PATH or __RELPATH as a property of a class; null for any other name. Refers to the class.
std::shared_ptr<const PropertyInfo> PathProperty(const ClassInfo& classInfo, std::u16string_view name);

/// The values of an object's keys, brought to their types. The row must have been gathered with the keys' needs.
std::vector<PathKey> KeysOf(const ClassInfo& classInfo, const void* row);

}  // namespace kv::wql
