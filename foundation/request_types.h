// The types of requests that a server may make, as AllowedRequests and requests name them.
#pragma once

#include <string_view>

namespace kv {

inline constexpr std::u16string_view requestTypeNames[] = {
    u"TEST_MONITOR",      u"START_SERVICE",      u"STOP_SERVICE",          u"SNMP_TEST_MONITOR",
    u"GET_INSTANCE_DATA", u"DOWNLOAD_QUERYCONF", u"DISCOVER_SNMP_DEVICES", u"DELETE_DEVICE",
};

}  // namespace kv
