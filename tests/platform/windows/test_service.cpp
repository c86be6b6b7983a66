// The service manager, and a process as a service.
#include <cstdlib>
#include <gtest/gtest.h>
#include <tuple>
#include <utility>
#include <vector>
#include <windows.h>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/service_manager.h"
#include "platform/utf.h"

namespace platform::test {
namespace {

/// A service that exists only during the test.
class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        InstallBackend();
        InstallServices();
        ASSERT_EQ(ServiceManager().OpenSCManagerW(manager_right::all, manager.Place()), error::success);
        ASSERT_EQ(ServiceManager().CreateServiceW(manager.get(), Definition(), service.Place()), error::success);
    }
    void TearDown() override {
        ServiceStatus status;
        ServiceManager().ControlService(service.get(), service_control::stop, status);
        ServiceManager().DeleteService(service.get());
    }

    ServiceDefinition Definition() const {
        return {.name = name,
                .displayName = name,
                .binaryPath = u"\"" + WideFromUtf8(KV_STAND_IN_SERVICE) + u"\" " + name,
                .dependencies = {}};
    }

    Error Control(std::uint32_t control) {
        ServiceStatus status;
        return ServiceManager().ControlService(service.get(), control, status);
    }

    /// Waits for a state and a wait hint; the last ones that it saw.
    std::pair<ServiceState, std::uint32_t> Await(ServiceState state, std::uint32_t hint) {
        ServiceStatus status;
        for (int look = 0; look < 500; ++look, Clock().Sleep(10)) {
            EXPECT_EQ(ServiceManager().QueryServiceStatusEx(service.get(), status), error::success);
            if (status.dwCurrentState == state && status.dwWaitHint == hint) break;
        }
        return {status.dwCurrentState, status.dwWaitHint};
    }

    const std::u16string name = u"kvagent-test-" + WideFromUtf8(std::to_string(::GetCurrentProcessId()));
    OwnedServiceHandle manager;
    OwnedServiceHandle service;
};

using Seen = std::pair<ServiceState, std::uint32_t>;

TEST_F(ServiceTest, GoesThroughItsStates) {
    EXPECT_EQ(Await(ServiceState::stopped, 0), Seen(ServiceState::stopped, 0));
    EXPECT_EQ(Control(service_control::stop), error::serviceNotActive);
    ASSERT_EQ(ServiceManager().StartServiceW(service.get()), error::success);
    EXPECT_EQ(ServiceManager().StartServiceW(service.get()), error::serviceAlreadyRunning);
    EXPECT_EQ(Await(ServiceState::startPending, 2000), Seen(ServiceState::startPending, 2000));
    EXPECT_EQ(Await(ServiceState::running, 0), Seen(ServiceState::running, 0));
    const std::tuple<const char*, std::uint32_t, Error, Seen> rows[] = {
        {"its own control", 130, error::success, {ServiceState::running, 130}},
        {"pause", service_control::pause, error::success, {ServiceState::paused, 130}},
        {"interrogate", service_control::interrogate, error::success, {ServiceState::paused, 130}},
        {"continue", service_control::resume, error::success, {ServiceState::running, 130}},
        {"accepts no pause any more", 131, error::success, {ServiceState::running, 131}},
        {"a pause that it does not accept",
         service_control::pause,
         error::invalidServiceControl,
         {ServiceState::running, 131}},
        {"stop", service_control::stop, error::success, {ServiceState::stopped, 0}},
    };
    for (const auto& [title, control, result, after] : rows) {
        EXPECT_EQ(Control(control), result) << title;
        EXPECT_EQ(Await(after.first, after.second), after) << title;
    }
}

TEST_F(ServiceTest, AServiceThatExitsWithoutAReportIsStopped) {
    ASSERT_EQ(ServiceManager().StartServiceW(service.get()), error::success);
    EXPECT_EQ(Await(ServiceState::running, 0), Seen(ServiceState::running, 0));
    Control(255);
    Error asked = error::success;
    for (int look = 0; asked == error::success && look < 500; ++look, Clock().Sleep(10))
        asked = Control(service_control::interrogate);
    EXPECT_NE(asked, error::success) << "the process has exited";
}

TEST_F(ServiceTest, CanBeMadeFoundAndRemovedOnce) {
    {
        OwnedServiceHandle second;
        EXPECT_EQ(ServiceManager().CreateServiceW(manager.get(), Definition(), second.Place()), error::serviceExists);
        EXPECT_EQ(ServiceManager().OpenServiceW(manager.get(), u"KVAGENT" + name.substr(7), service_right::queryStatus,
                                                second.Place()),
                  error::success);
        ServiceStatus status;
        EXPECT_EQ(ServiceManager().ControlService(second.get(), service_control::stop, status), error::accessDenied);
    }
    std::vector<std::u16string> names;
    EXPECT_EQ(ServiceManager().ListServiceNames(manager.get(), name, names), error::success);
    EXPECT_EQ(names, std::vector{std::u16string(name)});
    // Not every system shows what it stored of them.
    EXPECT_EQ(ServiceManager().ChangeServiceConfig2W(service.get(), {neverReset, {{RecoveryAction::restart, 10000}}}),
              error::success);
    std::vector<DependentService> dependents;
    std::size_t needed = 0;
    EXPECT_EQ(ServiceManager().EnumDependentServicesW(service.get(), 0, dependents, needed), error::success);
    EXPECT_TRUE(dependents.empty());

    EXPECT_EQ(ServiceManager().DeleteService(service.get()), error::success);
    service.Close();
    EXPECT_EQ(ServiceManager().OpenServiceW(manager.get(), name, service_right::all, service.Place()),
              error::serviceDoesNotExist);
    EXPECT_EQ(std::system("\"" KV_STAND_IN_SERVICE "\""), 1063) << "started by hand";
}

}  // namespace
}  // namespace platform::test
