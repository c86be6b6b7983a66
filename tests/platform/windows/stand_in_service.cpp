// A service that only reports. Its argument is its name; its exit code is the dispatcher's error. It takes a second to
// start, and returns each control from 128 on as its wait hint. At 255 it exits without a report.
#include <atomic>
#include <string>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/service_host.h"
#include "platform/threads.h"
#include "platform/utf.h"

namespace platform {
namespace {

std::u16string name;
ServiceStatusHandle handle = 0;
EventHandle stopped = 0;
std::atomic<bool> leaves{false};

std::uint32_t Report(ServiceState state, std::uint32_t accepted, std::uint32_t hint = 0) {
    return ServiceHost().SetServiceStatus(handle, {.dwServiceType = service_type::ownProcess,
                                                   .dwCurrentState = state,
                                                   .dwControlsAccepted = accepted,
                                                   .dwWaitHint = hint});
}

std::uint32_t Handle(std::uint32_t control, std::uint32_t, void*, void* context) {
    static ServiceState state = ServiceState::running;
    static std::uint32_t hint = 0;
    if (context != &name) hint = 1;
    if (control == service_control::pause) state = ServiceState::paused;
    if (control == service_control::resume) state = ServiceState::running;
    if (control >= 128) hint = control;
    leaves = control == 255;
    if (control == service_control::stop) {
        Report(ServiceState::stopPending, 0, 5000);
        Threads().SetEvent(stopped);
        return 0;
    }
    if (leaves) Threads().SetEvent(stopped);
    // After an odd control, it accepts no pause.
    const std::uint32_t pause = hint % 2 == 0 ? service_accepts::pauseAndContinue : 0;
    return Report(state, service_accepts::stop | pause, hint);
}

void Main() {
    if (ServiceHost().RegisterServiceCtrlHandlerExW(name, Handle, &name, handle) != error::success) return;
    Report(ServiceState::startPending, service_accepts::stop, 2000);
    Clock().Sleep(1000);
    Report(ServiceState::running, service_accepts::stop | service_accepts::pauseAndContinue);
    Threads().WaitForEvent(stopped, infinite);
    if (!leaves) Report(ServiceState::stopped, 0);
}

}  // namespace
}  // namespace platform

int main(int argc, char** argv) {
    using namespace platform;
    InstallBackend();
    InstallServices();
    name = WideFromUtf8(CommandLineWords(argc, argv).back());
    if (Threads().CreateEventW(stopped) != error::success) return 1;
    return static_cast<int>(ServiceHost().StartServiceCtrlDispatcherW(name, Main));
}
