// Names of objects: "\\HOST\root\cimv2:Win32_Service.Name="cron"". With several keys there are commas between them; the
// only object of a class has "=@" in place of keys. Texts stand in quotes, with a backslash before a quote or a
// backslash; numbers stand bare.
//
// The routines keep no state: any thread may call them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "wql/cim_value.h"

namespace kv::wql {

struct PathKey {
    std::u16string_view name;
    CimValue value;
};

/// The name within the namespace: "Win32_Service.Name="cron"". Without keys it is that of a class's only object.
std::u16string RelativePath(std::u16string_view className, const std::vector<PathKey>& keys);

/// The full name of an object of this computer.
std::u16string ObjectPath(std::u16string_view className, const std::vector<PathKey>& keys);

}  // namespace kv::wql
