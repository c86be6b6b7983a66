// Asks a device who it is.
#pragma once

#include "foundation/hash_table.h"

namespace kv {

/// Serves a request: looks up the device that it names, asks it for its identity in SNMPv2c and, when it gives no
/// answer, in SNMPv1, and posts what it found to the server, or why there is nothing. Blocks for up to the request's
/// SNMP_TIMEOUT for each version, and before that for as long as the system looks the device up.
void DiscoverSNMPDevices(const HashTable* request);

}  // namespace kv
