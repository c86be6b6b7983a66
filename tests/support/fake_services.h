// A service manager in memory. Its services take a while to change their state, in virtual time.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/service_manager.h"

namespace kv::test {

struct FakeService {
    platform::ServiceState state = platform::ServiceState::stopped;  // in which a change ends
    platform::ServiceState pending = {};                             // while it changes
    std::uint32_t takes = 3000;                                      // milliseconds of a change
    std::uint32_t waitHint = 1000;                                   // milliseconds, told while it changes
    std::uint32_t checkPointEvery = UINT32_MAX;                      // milliseconds; after two it stands still
    std::vector<std::u16string> dependents = {};                     // names of services
    platform::ServiceState startsTo = platform::ServiceState::running;
    std::uint64_t since = 0;  // tick count at which the change began; 0: no change
};

/// The current manager while it lives. It refuses a call through a handle without the right to it.
class FakeServices {
  public:
    FakeServices();

    std::map<std::u16string, FakeService> services;
    std::map<std::u16string, std::u16string> aliases;  // to the names of their services
    std::vector<std::string> calls;                    // such as "StartServiceW(A)"
    std::string failing;                               // a call that begins with this text fails; empty: no call does
    std::ptrdiff_t passing = 0;                        // such calls that succeed first
    platform::Error failure = platform::error::accessDenied;
    platform::ServiceDefinition definition;
    platform::ServiceFailureActions actions;
    bool hasOpenHandles() const { return !open_.empty(); }

  private:
    struct OpenHandle {
        std::u16string name;  // empty for the manager
        std::uint32_t rights = 0;
    };

    /// Notes a call, and does its work unless it fails or the handle lacks a right.
    template <class Work>
    platform::Error Call(const char* operation, platform::ServiceHandle handle, std::uint32_t right, const Work& work);
    FakeService& OpenedService(platform::ServiceHandle handle) { return services[open_.at(handle).name]; }
    platform::Error Open(std::u16string_view name, std::uint32_t rights, platform::ServiceHandle& handle);
    std::vector<platform::DependentService> ActiveDependents(const FakeService& service);
    platform::Error Control(FakeService& service, std::uint32_t control, platform::ServiceStatus& status);

    std::map<platform::ServiceHandle, OpenHandle> open_;
    platform::ScopedOperations<platform::ServiceManagerOperations> scoped_;
};

}  // namespace kv::test
