// Names of objects: "\\HOST\root\cimv2:Win32_Service.Name="cron"". With several keys there are commas between them; the
// only object of a class has "=@" in place of keys. Texts stand in quotes, with a backslash before a quote or a
// backslash; numbers stand bare.
//
// The routines keep no state: any thread may call them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wql/cim_value.h"

namespace kv::wql {

struct PathKey {
    std::u16string name;  // empty if the path leaves it out, as one may for the only key of a class
    CimValue value;       // not yet of the property's type
};

/// What a path names.
struct ObjectName {
    std::u16string className;
    std::vector<PathKey> keys;         // empty for the only object of a class
    WmiStatus place = wmi_status::ok;  // of CheckNamespace, for a path that has a namespace
};

/// The name within the namespace: "Win32_Service.Name="cron"". Without keys it is that of a class's only object. A key
/// that is NULL is written as an empty text.
std::u16string RelativePath(std::u16string_view className, const std::vector<PathKey>& keys);

/// The full name of an object of this computer.
std::u16string ObjectPath(std::u16string_view className, const std::vector<PathKey>& keys);

/// Whether a namespace, "ROOT\CIMV2" alone or behind this computer's name, is the one that there is: ok;
/// serverUnavailable for that of another computer; invalidNamespace. This computer is also ".", "localhost",
/// "127.0.0.1" and "::1". No resolver is asked, because it may not answer.
WmiStatus CheckNamespace(std::u16string_view path);

/// A path without the computer and the namespace before it.
std::u16string_view WithoutNamespace(std::u16string_view path);

/// Reads a path, full or relative; absent for a text that does not name an object.
std::optional<ObjectName> ParseObjectPath(std::u16string_view path);

/// Whether two paths name the same object of this computer, as far as they tell without their class. Texts compare
/// without regard to case.
bool AreSame(const ObjectName& left, const ObjectName& right);

}  // namespace kv::wql
