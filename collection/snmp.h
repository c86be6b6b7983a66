// The collector of SNMP records: one poll of one device becomes one record file, or the answer to a request.
#pragma once

#include <string_view>

#include "foundation/hash_table.h"

namespace kv {

/// Polls one SNMP record and writes its record file, also when the poll failed. With isTest "true" (any case) the
/// record is a request, and the result is posted to the server in place of a file.
void CollectSNMPData(const HashTable* record, std::u16string_view isTest);

/// Posts the answer of a failed poll to a request that is not served. No device is asked.
void RefuseSNMPData(const HashTable* request);

}  // namespace kv
