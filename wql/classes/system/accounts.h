// Win32_UserAccount and Win32_Group: the local users and groups.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gather what the files passwd, shadow and group in a folder such as /etc tell. A file passwd or group that cannot be
/// read is a failure, with a notice: accessDenied if the right is missing, else providerFailure. Without shadow the
/// facts of passwords are left out, with a notice.
WmiStatus GatherUsers(const Gathering& gathering, const std::string& folder);
WmiStatus GatherGroups(const Gathering& gathering, const std::string& folder);

}  // namespace kv::wql
