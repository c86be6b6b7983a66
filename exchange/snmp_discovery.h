// Asks a device what it is.
#pragma once

#include "foundation/hash_table.h"

namespace kv {

/// Serves a request: looks up the device that it names, asks for its identity in SNMPv2c and, without an answer, in
/// SNMPv1, and posts to the server what it found, or why it found nothing. Blocks for as long as the system looks the
/// device up, and then for up to the request's SNMP_TIMEOUT for each version.
///
/// Refused, nothing is looked up or asked, and the answer is that of a device without a response.
void DiscoverSNMPDevices(const HashTable* request, bool isRefused = false);

}  // namespace kv
