#include "tests/support/fake_services.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/utf.h"

namespace kv::test {

using namespace platform;
using platform::error::success;

static ServiceStatus StatusOf(const FakeService& service) {
    const std::uint64_t passed = Clock().GetTickCount64() - service.since;
    if (service.since == 0 || passed >= service.takes) return {.dwCurrentState = service.state};
    const auto checkPoint = static_cast<std::uint32_t>(std::min<std::uint64_t>(passed / service.checkPointEvery, 2));
    return {.dwCurrentState = service.pending, .dwCheckPoint = checkPoint, .dwWaitHint = service.waitHint};
}

static bool IsStopped(const FakeService& service) { return StatusOf(service).dwCurrentState == ServiceState::stopped; }

/// Starts a service, for the control 0, or does what a control says.
static Error Change(FakeService& service, std::uint32_t control) {
    using enum ServiceState;
    const std::pair<ServiceState, ServiceState> changes[] = {
        {service.startsTo, startPending}, {stopped, stopPending}, {paused, pausePending}, {running, continuePending}};
    std::tie(service.state, service.pending) = changes[control];
    return service.since = Clock().GetTickCount64(), success;
}

FakeServices::FakeServices() : scoped({}) {
    const auto call = [this](const char* name, ServiceHandle handle, std::uint32_t right, auto work) {
        const auto [service, rights] = handle == 0 ? std::pair(std::u16string(), 0U) : open.at(handle);
        calls.push_back(name + ("(" + Utf8FromWide(service)) + ")");
        if (calls.size() - 1 == failingCall) return failure;
        return (rights & right) == right ? work(services[service]) : error::accessDenied;
    };
    const auto enter = [this](std::u16string_view name, std::uint32_t rights, ServiceHandle& handle) {
        handle = open.empty() ? 1 : open.rbegin()->first + 1;
        return open[handle] = {std::u16string(name), rights}, success;
    };
    const auto list = [this](const FakeService& service, std::vector<DependentService>& found) {
        for (const auto& name : service.dependents)
            if (!IsStopped(services[name])) found.push_back({name, StatusOf(services[name])});
        return found.empty() ? success : error::dependentServicesRunning;
    };
    auto& now = CurrentOperations<ServiceManagerOperations>();
    now.OpenSCManagerW = [=](auto rights, auto& handle) {
        return call("OpenSCManagerW", 0, 0, [&](auto&) { return enter(u"", rights, handle); });
    };
    now.OpenServiceW = [=](auto manager, auto name, auto rights, auto& handle) {
        return call("OpenServiceW", manager, 0, [&](auto&) { return enter(name, rights, handle); });
    };
    now.CreateServiceW = [=, this](auto manager, auto& made, auto& handle) {
        const auto create = [&](auto&) { return definition = made, enter(made.name, 0, handle); };
        return call("CreateServiceW", manager, manager_right::createService, create);
    };
    now.ChangeServiceConfig2W = [=, this](auto handle, auto& given) {
        return call("ChangeServiceConfig2W", handle, 0, [&](auto&) { return actions = given, success; });
    };
    now.DeleteService = [=](auto handle) {
        return call("DeleteService", handle, service_right::all, [](auto&) { return success; });
    };
    now.StartServiceW = [=](auto handle) {
        const auto start = [](auto& of) { return IsStopped(of) ? Change(of, 0) : error::serviceAlreadyRunning; };
        return call("StartServiceW", handle, service_right::start, start);
    };
    now.ControlService = [=](auto handle, auto control, auto& status) {
        const auto right = control == service_control::stop ? service_right::stop : service_right::pauseAndContinue;
        return call("ControlService", handle, right, [&](FakeService& service) {
            std::vector<DependentService> active;
            const Error refused = list(service, active);
            return refused ? refused : (Change(service, control), status = StatusOf(service), success);
        });
    };
    now.QueryServiceStatusEx = [=](auto handle, auto& status) {
        const auto query = [&](auto& service) { return status = StatusOf(service), success; };
        return call("QueryServiceStatusEx", handle, service_right::queryStatus, query);
    };
    now.EnumDependentServicesW = [=](auto handle, auto size, auto& found, auto& needed) {
        return call("EnumDependentServicesW", handle, service_right::enumerateDependents, [&](auto& service) {
            list(service, found);
            needed = found.size();
            return size >= needed ? success : (found.clear(), error::moreData);
        });
    };
    now.CloseServiceHandle = [this](auto handle) { EXPECT_EQ(open.erase(handle), 1U) << "closed twice"; };
}

}  // namespace kv::test
