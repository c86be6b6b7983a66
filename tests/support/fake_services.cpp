#include "tests/support/fake_services.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/utf.h"

namespace kv::test {

using namespace platform;
using enum ServiceState;
using platform::error::success;

namespace {

ServiceStatus CurrentStatus(const FakeService& service) {
    const std::uint64_t passed = Clock().GetTickCount64() - service.since;
    if (service.since == 0 || passed >= service.takes) return {.dwCurrentState = service.state};
    const auto checkPoint = static_cast<std::uint32_t>(std::min<std::uint64_t>(passed / service.checkPointEvery, 2));
    return {.dwCurrentState = service.pending, .dwCheckPoint = checkPoint, .dwWaitHint = service.waitHint};
}

void BeginChange(FakeService& service, ServiceState pending, ServiceState state) {
    service.pending = pending;
    service.state = state;
    service.since = Clock().GetTickCount64();
}

Error StartService(FakeService& service) {
    if (CurrentStatus(service).dwCurrentState != stopped) return error::serviceAlreadyRunning;
    BeginChange(service, startPending, service.startsTo);
    return success;
}

}  // namespace

template <class Work>
Error FakeServices::Call(const char* operation, ServiceHandle handle, std::uint32_t right, const Work& work) {
    const OpenHandle opened = handle == 0 ? OpenHandle() : open_.at(handle);
    const auto isFailing = [this](const std::string& call) { return !failing.empty() && call.starts_with(failing); };
    const auto passed = std::count_if(calls.begin(), calls.end(), isFailing);
    calls.push_back(std::string(operation) + "(" + Utf8FromWide(opened.name) + ")");
    if (isFailing(calls.back()) && passed == passing) return failure;
    return (opened.rights & right) == right ? work() : error::accessDenied;
}

Error FakeServices::Open(std::u16string_view name, std::uint32_t rights, ServiceHandle& handle) {
    handle = open_.empty() ? 1 : open_.rbegin()->first + 1;
    open_[handle] = {std::u16string(name), rights};
    return success;
}

std::vector<DependentService> FakeServices::ActiveDependents(const FakeService& service) {
    std::vector<DependentService> active;
    for (const std::u16string& name : service.dependents) {
        const ServiceStatus status = CurrentStatus(services[name]);
        if (status.dwCurrentState != stopped) active.push_back({name, status});
    }
    return active;
}

Error FakeServices::Control(FakeService& service, std::uint32_t control, ServiceStatus& status) {
    if (!ActiveDependents(service).empty()) return error::dependentServicesRunning;
    if (control == service_control::stop) BeginChange(service, stopPending, stopped);
    if (control == service_control::pause) BeginChange(service, pausePending, paused);
    if (control == service_control::resume) BeginChange(service, continuePending, running);
    status = CurrentStatus(service);
    return success;
}

FakeServices::FakeServices() : scoped_({}) {
    auto& now = CurrentOperations<ServiceManagerOperations>();
    now.OpenSCManagerW = [this](auto rights, auto& handle) {
        return Call("OpenSCManagerW", 0, 0, [&] { return Open(u"", rights, handle); });
    };
    now.OpenServiceW = [this](auto manager, auto name, auto rights, auto& handle) {
        return Call("OpenServiceW", manager, 0, [&] { return Open(name, rights, handle); });
    };
    now.ListServiceNames = [this](auto manager, auto name, auto& names) {
        return Call("ListServiceNames", manager, 0, [&] {
            const auto alias = aliases.find(std::u16string(name));
            names = {alias != aliases.end() ? alias->second : std::u16string(name)};
            return success;
        });
    };
    now.CreateServiceW = [this](auto manager, auto& made, auto& handle) {
        return Call("CreateServiceW", manager, manager_right::createService, [&] {
            definition = made;
            return Open(made.name, 0, handle);
        });
    };
    now.ChangeServiceConfig2W = [this](auto handle, auto& given) {
        actions = given;
        return Call("ChangeServiceConfig2W", handle, 0, [] { return success; });
    };
    now.DeleteService = [this](auto handle) {
        return Call("DeleteService", handle, service_right::all, [] { return success; });
    };
    now.StartServiceW = [this](auto handle) {
        return Call("StartServiceW", handle, service_right::start, [&] { return StartService(OpenedService(handle)); });
    };
    now.ControlService = [this](auto handle, auto control, auto& status) {
        const std::uint32_t right =
            control == service_control::stop ? service_right::stop : service_right::pauseAndContinue;
        return Call("ControlService", handle, right, [&] { return Control(OpenedService(handle), control, status); });
    };
    now.QueryServiceStatusEx = [this](auto handle, auto& status) {
        return Call("QueryServiceStatusEx", handle, service_right::queryStatus, [&] {
            status = CurrentStatus(OpenedService(handle));
            return success;
        });
    };
    now.EnumDependentServicesW = [this](auto handle, auto size, auto& found, auto& needed) {
        return Call("EnumDependentServicesW", handle, service_right::enumerateDependents, [&] {
            found = ActiveDependents(OpenedService(handle));
            needed = found.size();
            if (size >= needed) return success;
            found.clear();
            return error::moreData;
        });
    };
    now.CloseServiceHandle = [this](auto handle) { EXPECT_EQ(open_.erase(handle), 1U) << "closed twice"; };
}

}  // namespace kv::test
