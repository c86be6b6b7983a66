// What a service and the service manager tell each other: states, controls, and the record of a status.
//
// The numbers are those of Windows; the agent's log shows them.
#pragma once

#include <cstdint>

namespace platform {

enum class ServiceState : std::uint32_t {
    stopped = 1,
    startPending = 2,
    stopPending = 3,
    running = 4,
    continuePending = 5,
    pausePending = 6,
    paused = 7,
};

/// Control codes. Those from 128 on are the service's own.
namespace service_control {
inline constexpr std::uint32_t stop = 1;
inline constexpr std::uint32_t pause = 2;
inline constexpr std::uint32_t resume = 3;  // "continue"
inline constexpr std::uint32_t interrogate = 4;
inline constexpr std::uint32_t shutdown = 5;  // the machine goes down
inline constexpr std::uint32_t sessionChange = 14;
}  // namespace service_control

/// What a service accepts, in dwControlsAccepted.
namespace service_accepts {
inline constexpr std::uint32_t stop = 0x1;
inline constexpr std::uint32_t pauseAndContinue = 0x2;
inline constexpr std::uint32_t shutdown = 0x4;
inline constexpr std::uint32_t sessionChange = 0x80;
}  // namespace service_accepts

namespace service_type {
inline constexpr std::uint32_t ownProcess = 0x10;
inline constexpr std::uint32_t sharedProcess = 0x20;
inline constexpr std::uint32_t interactive = 0x100;
}  // namespace service_type

struct ServiceStatus {
    std::uint32_t dwServiceType = 0;
    ServiceState dwCurrentState = ServiceState::stopped;
    std::uint32_t dwControlsAccepted = 0;
    std::uint32_t dwWin32ExitCode = 0;
    std::uint32_t dwServiceSpecificExitCode = 0;  // counts when dwWin32ExitCode is serviceSpecificError
    std::uint32_t dwCheckPoint = 0;               // grows as long as a pending operation makes progress
    std::uint32_t dwWaitHint = 0;                 // milliseconds that the pending step takes at most
};

}  // namespace platform
