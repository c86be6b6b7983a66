// The 32-bit status codes of WMI that this system gives out itself, with their texts. Others may come from a backend.
//
// A status is a failure when its top bit is set. One list holds each code's enumerator, number and text; where the
// system's own message library for WMI does not exist, its texts come from here.
#pragma once

#include <cstdint>

namespace platform {

using WmiStatus = std::uint32_t;

// clang-format off
#define KV_WMI_STATUSES(X)                                                                    \
    X(failed,             0x80041001, "Generic failure")                                      \
    X(accessDenied,       0x80041003, "Access denied")                                        \
    X(providerFailure,    0x80041004, "Provider failure")                                     \
    X(outOfMemory,        0x80041006, "Out of memory")                                        \
    X(invalidParameter,   0x80041008, "Invalid parameter")                                    \
    X(notFound,           0x80041002, "Not found")                                            \
    X(invalidObjectPath,  0x8004103A, "Invalid object path")                                  \
    X(notSupported,       0x8004100C, "Not supported")                                        \
    X(invalidNamespace,   0x8004100E, "Invalid namespace")                                    \
    X(invalidClass,       0x80041010, "Invalid class")                                        \
    X(invalidQuery,       0x80041017, "Invalid query")                                        \
    X(serverTooBusy,      0x80041045, "The server is too busy")                               \
    X(quotaViolation,     0x8004106C, "Quota violation")                                      \
    X(serverUnavailable,  0x800706BA, "The RPC server is unavailable.")                       \
    X(timedOut,           0x80041069, "The operation timed out")
// clang-format on

namespace wmi_status {
inline constexpr WmiStatus ok = 0;                // S_OK
inline constexpr WmiStatus noMore = 1;            // WBEM_S_FALSE: the end of the objects
inline constexpr WmiStatus noMoreData = 0x40005;  // WBEM_S_NO_MORE_DATA: the end of the properties
#define KV_DECLARE_STATUS(name, number, text) inline constexpr WmiStatus name = number;
KV_WMI_STATUSES(KV_DECLARE_STATUS)
#undef KV_DECLARE_STATUS
}  // namespace wmi_status

constexpr bool IsFailure(WmiStatus status) { return (status & 0x80000000) != 0; }

}  // namespace platform
