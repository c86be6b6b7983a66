// A service manager in memory, whose services take a while to change their state; works in virtual time.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/service_manager.h"

namespace kv::test {

struct FakeService {
    platform::ServiceState state = platform::ServiceState::stopped;             // what it comes to
    platform::ServiceState pending = {};                                        // until then
    std::uint32_t takes = 3000, waitHint = 1000, checkPointEvery = UINT32_MAX;  // milliseconds; two points
    std::vector<std::u16string> dependents = {};
    platform::ServiceState startsTo = platform::ServiceState::running;
    std::uint64_t since = 0;  // tick count of the change; 0 for none
};

/// The current manager for as long as it lives. What is called without the right to it is refused.
struct FakeServices {
    FakeServices();

    std::map<std::u16string, FakeService> services;
    std::vector<std::string> calls;      // such as "StartServiceW(A)"
    std::size_t failingCall = SIZE_MAX;  // its index
    platform::Error failure = platform::error::accessDenied;
    platform::ServiceDefinition definition;
    platform::ServiceFailureActions actions;
    std::map<platform::ServiceHandle, std::pair<std::u16string, std::uint32_t>> open;  // name and rights
    platform::ScopedOperations<platform::ServiceManagerOperations> scoped;
};

}  // namespace kv::test
