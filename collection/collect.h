// One scheduled workflow entry turned into record files: each of its records goes to the collector of its kind.
#pragma once

#include <string_view>

#include "foundation/hash_table.h"

namespace kv {

/// What a plan's record is: "WMI", "script" or "SNMP"; empty for one of an unknown kind.
std::string_view KindOfRecord(const HashTable* record);

/// Collects one record of a plan by the collector of its kind. One of an unknown kind is skipped.
void CollectRecord(const HashTable* record);

/// Timer callback: runs the records of the workflow entry whose index in gv_sortVec the argument points to (int32). A
/// record that fails costs the others nothing.
void CollectAndSaveData(void* argument);

}  // namespace kv
