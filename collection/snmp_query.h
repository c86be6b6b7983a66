// One poll of one device, and the members of a record or a request that a poll goes by.
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

/// The record's COMMUNITY; "public", with a log line, when it has no such text.
std::u16string SnmpCommunity(const HashTable* record);

/// The record's SNMP_PORT; 161, with a log line, when it is absent. False, with a log line, when it is not a number
/// from 1 to 65535: at another port there may be another device.
bool SnmpPort(const HashTable* record, std::int32_t& port);

/// What a log line calls a record or a request, and its device.
std::u16string SnmpRecordName(const HashTable* record);

/// The number of seconds that a text says, for a record's polls; 5, with a log line, when it is not a number from 1 to
/// 2147.
std::int32_t SnmpTimeout(const HashTable* record, const OptionalText& seconds);

/// The text of a value that has one. Bytes that are not UTF-8 stand for the characters U+0000 to U+00FF; a zero byte
/// becomes U+FFFD, but for one at the end, which is dropped.
std::u16string SnmpValueText(const SnmpValue& value);

}  // namespace kv
