// Places where a build of the engine can put code of its own. All of them are empty here, and an empty one succeeds.
// They are set before the engine is used, and not changed afterwards.
#pragma once

#include <cstdint>

#include "snmp/pdu.h"

namespace kv::snmp {

struct ProcessingHooks {
    /// Around the start of the engine's service: stage 1 before it, 2 after it. 0 or 99 ends the start.
    std::uint8_t (*service)(std::int32_t stage) = nullptr;

    /// Gets a built message of version 3 whose PDU asks for it; size is that of the message. 1, or 0 when it failed.
    std::uint8_t (*message)(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu) = nullptr;
};

inline ProcessingHooks processingHooks;

inline std::uint8_t DoProcessingCode(std::int32_t stage) {
    return processingHooks.service ? processingHooks.service(stage) : 1;
}

inline std::uint8_t PostProcessMessage(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu) {
    return processingHooks.message ? processingHooks.message(buffer, size, pdu) : 1;
}

}  // namespace kv::snmp
