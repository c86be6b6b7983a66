// What the classes do when the firmware's tables (SMBIOS) are there and cannot be read, as by an agent that is not the
// superuser, or are damaged.
#pragma once

#include <string_view>

#include "facts/hardware/smbios.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// For a class that has found no objects because they are in the tables only: ok if those were read or there are none,
/// accessDenied without the right, else providerFailure, for a damaged table too. A failure gives a notice, too.
WmiStatus StatusOfTable(const Gathering& gathering, const facts::SmbiosTable& table);

/// For a class that loses some properties without the tables: a notice if they could not be read to their end.
void TellOfLostTable(const Gathering& gathering, const facts::SmbiosTable& table);

/// A notice if there is such a text of the tables, and this process lacks the right to read it.
void TellOfForbiddenText(const Gathering& gathering, std::string_view dmiName);

}  // namespace kv::wql
