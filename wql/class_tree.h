// All classes of ROOT\CIMV2, found by name without regard to case.
#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Registers the classes of one source file, which has one constant of this type. No other code names it.
class ClassFamily {
  public:
    /// Called once, at the first query. What it lists lives as long as the process.
    using List = std::span<const ClassInfo> (*)();

    explicit ClassFamily(List routine) noexcept;
    ClassFamily(const ClassFamily&) = delete;
    ClassFamily& operator=(const ClassFamily&) = delete;

    std::span<const ClassInfo> list() const { return list_(); }
    const ClassFamily* before() const { return before_; }

  private:
    List list_;
    const ClassFamily* before_;  // the one registered before it, or null
};

/// Every class, in the order of names without regard to case. Made at the first call; lives as long as the process.
const std::vector<const ClassInfo*>& AllClasses();

/// Null if there is no such class.
const ClassInfo* FindClass(std::u16string_view name);

/// Null if the class has no such property.
const PropertyInfo* FindProperty(const ClassInfo& classInfo, std::u16string_view name);

/// The properties that tell a class's objects apart; empty for an abstract class, and for one with a single object.
std::vector<const PropertyInfo*> KeyProperties(const ClassInfo& classInfo);

/// The classes that have objects among a class and its subclasses, in the order of names.
std::vector<const ClassInfo*> ClassesOf(const ClassInfo& classInfo);

/// Whether a class is the named one or inherits from it.
bool IsA(const ClassInfo& classInfo, std::u16string_view name);

/// Compares names without regard to case: negative, 0 or positive.
int CompareNames(std::u16string_view left, std::u16string_view right);

}  // namespace kv::wql
