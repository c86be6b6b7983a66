// A handle of the service manager, which ends with its scope. It belongs to one thread.
#pragma once

#include <string_view>

#include "platform/service_manager.h"

namespace kv {

/// The manager or a service, closed at the end of its life. It holds none before it is opened, and is opened once.
struct OwnedServiceHandle {
    platform::ServiceHandle handle = 0;

    OwnedServiceHandle() = default;
    OwnedServiceHandle(const OwnedServiceHandle&) = delete;
    OwnedServiceHandle& operator=(const OwnedServiceHandle&) = delete;
    ~OwnedServiceHandle() {
        if (handle != 0) platform::ServiceManager().CloseServiceHandle(handle);
    }

    platform::Error OpenManager(std::uint32_t rights) {
        return platform::ServiceManager().OpenSCManagerW(rights, handle);
    }
    platform::Error OpenService(const OwnedServiceHandle& manager, std::u16string_view name, std::uint32_t rights) {
        return platform::ServiceManager().OpenServiceW(manager.handle, name, rights, handle);
    }
};

}  // namespace kv
