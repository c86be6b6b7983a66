// The collector of WMI records: one query becomes one record file.
#pragma once

#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// Runs a plan's record. One without query or name is skipped, with a log line.
void CollectWMI(const HashTable* record);

/// Runs one WMI query and writes its record file, also when the query failed: its error is in the record. A name that
/// another member of the record has is refused, with a log line. A null nameSpace is ROOT\CIMV2.
void ExecuteWMIQuery(const OptionalText& nameSpace, std::u16string_view wmiQuery, std::u16string_view name);

/// Whether a WMI record has a member of that name beside its rows, so that no record may be named so.
bool IsWMIRecordMember(std::u16string_view name);

}  // namespace kv
