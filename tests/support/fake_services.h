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
class FakeServices {
  public:
    FakeServices();

    std::map<std::u16string, FakeService> services;
    std::vector<std::string> calls;  // such as "StartServiceW(A)"
    std::string failing;             // how the call begins that fails, once as many of its kind as these have passed
    std::ptrdiff_t passing = 0;
    platform::Error failure = platform::error::accessDenied;
    platform::ServiceDefinition definition;
    platform::ServiceFailureActions actions;
    bool hasOpenHandles() const { return !open_.empty(); }

  private:
    struct OpenHandle {
        std::u16string name;  // empty for the manager
        std::uint32_t rights = 0;
    };

    platform::Error Call(const char* operation, platform::ServiceHandle handle, std::uint32_t right);
    FakeService& ServiceOf(platform::ServiceHandle handle) { return services[open_.at(handle).name]; }
    platform::Error Open(std::u16string_view name, std::uint32_t rights, platform::ServiceHandle& handle);
    std::vector<platform::DependentService> ActiveDependents(const FakeService& service);
    platform::Error Control(FakeService& service, std::uint32_t control, platform::ServiceStatus& status);

    std::map<platform::ServiceHandle, OpenHandle> open_;
    platform::ScopedOperations<platform::ServiceManagerOperations> scoped_;
};

}  // namespace kv::test
