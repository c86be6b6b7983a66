// This process as a service: a socket receives its notices in the manager's place, and real signals control it.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/backend.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/systemd/machine_state.h"
#include "platform/service_host.h"
#include "tests/support/linux/fake_systemd.h"

namespace platform::test {
namespace {

struct Scene {
    const char* title;
    std::vector<int> early;  // signals before the handler is registered, which are dropped
    std::vector<int> later;  // signals after the first report, taken in the order of their numbers
    std::string expected;    // notices and controls, in turn
    std::uint32_t accepts = 7;
    const char* system = "running";
};

const Scene* scene = nullptr;
ServiceStatusHandle handle = 0;
int managerSocket = -1;
std::mutex traceLock;
std::string trace;

std::string Traced(const std::string& text = "") {
    const std::lock_guard hold(traceLock);
    return text.empty() ? trace : trace += text + "|";
}

void Send(const std::vector<int>& signals) {
    for (const int signal : signals) kill(getpid(), signal);
}

/// Waits until the dispatcher, on the process's first thread, has taken the signals and sleeps again.
void AwaitTaken() {
    const auto isPending = [] {
        sigset_t pending{};
        sigpending(&pending);
        return sigismember(&pending, SIGUSR1) == 1;
    };
    const auto sleeps = [] {
        std::string state;
        std::getline(std::ifstream("/proc/self/stat"), state);
        return state.find(") S ") != state.npos;
    };
    while (isPending() || !sleeps()) usleep(1000);
}

/// Adds the notice that came to the trace. The caller holds its lock.
void TakeNotice() {
    std::string notice(200, '\0');
    const ssize_t size = recv(managerSocket, notice.data(), notice.size(), MSG_DONTWAIT);
    trace += notice.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0))) + "|";
}

void Report(ServiceState state) {
    const ServiceStatus status{.dwCurrentState = state, .dwControlsAccepted = scene->accepts};
    const std::lock_guard hold(traceLock);  // a control that follows waits
    EXPECT_EQ(ServiceHost().SetServiceStatus(handle, status), error::success);
    TakeNotice();
}

std::uint32_t Handle(std::uint32_t control, std::uint32_t, void*, void*) {
    Traced(std::to_string(control));
    if (control == service_control::stop || control == service_control::shutdown) {
        Report(ServiceState::stopPending);
        if (Traced().size() < 1000) Send({SIGTERM, SIGUSR1, SIGHUP});  // all of them too late
    }
    // Also after a stop, like a start that the stop has overtaken.
    Report(control == service_control::pause ? ServiceState::paused : ServiceState::running);
    return 0;
}

void Main() {
    const kv::test::FakeSystemd manager({{.id = "", .properties = {{"SystemState", scene->system}}}});
    Send(scene->early);
    AwaitTaken();
    EXPECT_EQ(ServiceHost().RegisterServiceCtrlHandlerExW(u"b", Handle, nullptr, handle), error::serviceDoesNotExist);
    EXPECT_EQ(ServiceHost().RegisterServiceCtrlHandlerExW(u"a", Handle, nullptr, handle), error::success);
    Report(scene->early.empty() ? ServiceState::running : ServiceState::startPending);
    Send(scene->later);
    for (int tries = 0; tries < 500 && Traced() != scene->expected; ++tries) usleep(1000);
    usleep(20000);  // more would be an error
    Report(ServiceState::stopped);
}

void Tell(std::string_view text) {
    const std::lock_guard hold(traceLock);
    EXPECT_EQ(ServiceHost().SetStatusText(handle, text), error::success);
    TakeNotice();
}

/// Tells how it is in each state.
void TellingMain() {
    ServiceHost().RegisterServiceCtrlHandlerExW(u"a", Handle, nullptr, handle);
    Report(ServiceState::running);
    Tell("one\nREADY=0");
    Report(ServiceState::paused);
    Tell("two");
    Report(ServiceState::running);
    Report(ServiceState::stopped);
    Tell("three");
}

std::latch mayGoOn(1), isOver(1);

void StoppedBeforeItReports() {
    Send({SIGTERM});
    mayGoOn.wait();
    EXPECT_EQ(ServiceHost().RegisterServiceCtrlHandlerExW(u"a", Handle, nullptr, handle), error::serviceDoesNotExist);
    isOver.count_down();
}

/// Fills the socket's queue, so that the next notice does not fit.
void Fill(int socket) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    while (sendto(socket, "", 0, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address), length) >= 0) continue;
}

/// The manager does not read. A report counts anyway, and a second stop does nothing.
void UnheardMain() {
    static std::atomic<int> stops = 0;
    ServiceHost().RegisterServiceCtrlHandlerExW(
        u"a",
        [](std::uint32_t, std::uint32_t, void*, void*) {
            ServiceHost().SetServiceStatus(handle, {.dwCurrentState = ServiceState::stopPending});
            Send({SIGTERM});
            return static_cast<std::uint32_t>(++stops);
        },
        nullptr, handle);
    const ServiceStatus running{.dwCurrentState = ServiceState::running, .dwControlsAccepted = 1};
    EXPECT_EQ(ServiceHost().SetServiceStatus(handle, running), error::serviceRequestTimeout);
    Send({SIGTERM});
    while (stops == 0) usleep(1000);
    usleep(20000);
    EXPECT_EQ(stops, 1);
}

TEST(ServiceHost, DoesNotWaitForASilentManager) {
    const kv::test::FakeSystemd silent({}, {"accept", ""});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(systemd::IsMachineGoingDown(std::chrono::milliseconds(100)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(ServiceHost, SignalsBecomeAcceptedControls) {
    InstallBackend();
    InstallServices();
    const Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    managerSocket = manager.get();
    sockaddr_un address{AF_UNIX, {}};
    const std::string name = "kv_test_notices_" + std::to_string(getpid());
    name.copy(address.sun_path + 1, name.size());  // an abstract name, without a file
    const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    ASSERT_EQ(bind(managerSocket, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)), 0);
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    setenv("SYSTEMD_EXEC_PID", "1", 1);
    EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", Main), error::serviceControllerConnect)
        << "of another process";
    setenv("SYSTEMD_EXEC_PID", std::to_string(getpid()).c_str(), 1);
    const std::string running = "READY=1\nSTATUS=Running|", paused = "STATUS=Paused: collection goes on|";
    const std::string stopping = "STOPPING=1\nSTATUS=Stopping|" + running;
    const Scene scenes[] = {
        {"a stop, and another one meanwhile", {}, {SIGTERM}, running + "1|" + stopping},
        {"a stop from a keyboard", {}, {SIGINT}, running + "1|" + stopping},
        {"a pause before the handler is there", {SIGUSR1}, {SIGTERM}, "STATUS=Starting|1|" + stopping},
        {"the machine goes down", {}, {SIGTERM}, running + "5|" + stopping, 7, "stopping"},
        {"hang-up, pause and continue", {}, {SIGHUP, SIGUSR1, SIGUSR2}, running + "2|" + paused + "3|" + running},
        {"pause is not accepted", {}, {SIGUSR1, SIGUSR2, SIGTERM}, running + "1|" + stopping, service_accepts::stop},
        {"stop is not accepted", {}, {SIGTERM, SIGUSR1}, running + "2|" + paused, service_accepts::pauseAndContinue},
    };
    for (const Scene& each : scenes) {
        scene = &each;
        trace.clear();
        EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", Main), error::success) << each.title;
        EXPECT_EQ(trace, each.expected + "STATUS=Stopped|") << each.title;
    }
    trace.clear();
    EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", TellingMain), error::success);
    EXPECT_EQ(trace, running + "STATUS=one|" + paused + "|READY=1\nSTATUS=two|STATUS=Stopped||");
    EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", StoppedBeforeItReports), error::success);
    mayGoOn.count_down();
    isOver.wait();
    Fill(managerSocket);
    EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", UnheardMain), error::success);
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(ServiceHost().StartServiceCtrlDispatcherW(u"a", Main), error::serviceControllerConnect)
        << "without a socket";
}

}  // namespace
}  // namespace platform::test
