#include "collection/collect.h"
#include "foundation/log.h"

namespace kv {

void CollectSNMPData(const HashTable* record, std::u16string_view /*isTest*/) {
    Log3("\t Inside CollectSNMPData() \n");
    Log1("\t CollectSNMPData :: SNMP collection is not built yet: device %s is not polled \n",
         GetHashText(record, u"DEVICE_NAME"));
}

}  // namespace kv
