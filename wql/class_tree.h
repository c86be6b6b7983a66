// All classes of ROOT\CIMV2, found by name without regard to case.
#pragma once

#include <string_view>
#include <vector>

#include "wql/wmi_class.h"

namespace platform::wmi {

/// Every class, in no particular order. Made at the first call; lives as long as the process.
const std::vector<const ClassInfo*>& AllClasses();

/// None when there is no such class.
const ClassInfo* FindClass(std::u16string_view name);

/// None when the class has no such property.
const PropertyInfo* FindProperty(const ClassInfo& classInfo, std::u16string_view name);

/// Whether a class is the named one or inherits from it.
bool IsA(const ClassInfo& classInfo, std::u16string_view name);

/// Compares names without regard to case: below, at or above 0.
int CompareNames(std::u16string_view left, std::u16string_view right);

}  // namespace platform::wmi
