// Win32_LogonSession and Win32_LoggedOnUser: sessions, and whose they are.
#pragma once

#include <vector>

#include "facts/accounts/sessions.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Hand over an object for each session.
WmiStatus GatherLogonSessions(const Gathering& gathering, const std::vector<facts::Session>& sessions);
WmiStatus GatherLoggedOnUsers(const Gathering& gathering, const std::vector<facts::Session>& sessions);

}  // namespace kv::wql
