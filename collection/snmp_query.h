// One poll of one device, and what a record or a request says about it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"
#include "snmp/snmp_manager.h"

namespace kv {

/// Polls the device that a record names and puts "OID", "TYPE" and a table for each polled OID, from the OIDs of its
/// values to their texts, into a table. "SUCCESS", or "FAILURE" when the device gave no value or not all that was asked
/// for; what it gave stays in the table then. A record of the protocol "SPOLL" gets a second attempt.
std::u16string ExecuteSNMPQuery(const HashTable* record, HashTable* table);

/// A record's member as text: a text as it is, an integer in decimal, a truth value as "true" or "false". None when it
/// is absent or anything else.
OptionalText SnmpMember(const HashTable* record, std::u16string_view key);

/// SnmpMember, or with a log line that names the device and the record what stands for a missing one.
std::u16string SnmpMemberOr(const HashTable* record, std::u16string_view key, std::u16string_view fallback);

/// The record's SNMP_PORT. 161 with a log line when it is no number from 1 to 65535.
std::int32_t SnmpPort(const HashTable* record);

/// A number of seconds for a record's polls. 5 with a log line when the text is no number from 1 to 2147.
std::int32_t SnmpTimeout(const HashTable* record, const OptionalText& seconds);

/// The text of a value that has one. Bytes that are no UTF-8 stand for the characters U+0000 to U+00FF; a zero byte
/// becomes U+FFFD, but for one at the end, which is dropped.
std::u16string SnmpValueText(const SnmpValue& value);

}  // namespace kv
