// The service manager is systemd. It starts the service as a unit of Type=notify, hears of its states by the protocol
// of sd_notify(3), and gives its controls by signals:
//
//     SIGTERM, SIGINT    shutdown when the machine goes down, else stop
//     SIGUSR1            pause
//     SIGUSR2            continue
//     SIGHUP             nothing; the settings are read at the start, and it must not end the service
//
// They are blocked in every thread and read on the dispatcher's, where the handler may do whatever it likes. One that
// asks for a stop before there is a handler ends the process, because nothing has begun. One that comes after the
// service has said that it stops is never read, and dropped at the end.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "platform/guarded.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/linux.h"
#include "platform/linux/systemd/machine_state.h"

namespace platform {

namespace {

constexpr std::array controlSignals{SIGTERM, SIGINT, SIGUSR1, SIGUSR2, SIGHUP};

/// How long to wait for the machine's state, and until a notice is taken, so that a stop does not hang with a manager
/// that hangs.
constexpr std::chrono::milliseconds managerPatience{2000};
constexpr timeval noticePatience{0, 500000};

constexpr ServiceStatusHandle theService = 1;

/// How far the service has come; it never goes back.
enum class Phase { starting, takingControls, stopping, ended };

/// The service as the dispatcher, the main routine and the threads that report share it. The lock is held over a whole
/// report, so that what was reported last is what the manager was told last.
struct HostedService {
    std::mutex lock;
    unsigned run = 0;  // counts the dispatchers, so that the main routine of one that was given up meets no other
    std::u16string name;
    int wake = -1;  // an eventfd that tells the dispatcher of a new phase; below 0: no dispatcher runs
    Phase phase = Phase::starting;
    ServiceHandlerRoutine handler = nullptr;
    void* context = nullptr;
    std::uint32_t controlsAccepted = 0;
    ServiceState state = ServiceState::startPending;  // the last one reported
    std::string statusText;                           // of a running service
};

/// Never released: a thread may report as long as the process lives.
HostedService& Hosted() {
    static auto* const hosted = new HostedService;
    return *hosted;
}

/// Whether the manager started this very process; one further down inherits the socket, but is not the one it means.
bool IsStartedByManager() {
    const char* const socket = std::getenv("NOTIFY_SOCKET");
    const char* const process = std::getenv("SYSTEMD_EXEC_PID");
    return socket != nullptr && *socket != 0 && (process == nullptr || process == std::to_string(getpid()));
}

/// The control signals, blocked in this thread and in those that it starts, for as long as this object lives.
class HeldSignals {
  public:
    HeldSignals() {
        sigemptyset(&held_);
        for (const int signal : controlSignals) sigaddset(&held_, signal);
        pthread_sigmask(SIG_BLOCK, &held_, &former_);
    }
    ~HeldSignals() {
        const std::timespec noTime{};
        while (sigtimedwait(&held_, nullptr, &noTime) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    const sigset_t& set() const { return held_; }

  private:
    sigset_t held_{};
    sigset_t former_{};
};

/// Fills the record of the service for as long as its dispatcher runs.
class Hosting {
  public:
    Hosting(std::u16string_view name, int wake) {
        const std::lock_guard hold(Hosted().lock);
        run_ = ++Hosted().run;
        Hosted().name = name;
        Hosted().wake = wake;
        Hosted().phase = Phase::starting;
        Hosted().state = ServiceState::startPending;
        Hosted().statusText = "Running";
    }
    ~Hosting() {
        const std::lock_guard hold(Hosted().lock);
        Hosted().wake = -1;
        Hosted().handler = nullptr;
    }
    Hosting(const Hosting&) = delete;
    Hosting& operator=(const Hosting&) = delete;

    unsigned run() const { return run_; }

  private:
    unsigned run_;
};

/// The caller holds the lock.
void EnterPhase(HostedService& service, Phase phase) {
    if (phase <= service.phase) return;
    service.phase = phase;
    eventfd_write(service.wake, 1);
}

Phase CurrentPhase() {
    const std::lock_guard hold(Hosted().lock);
    return Hosted().phase;
}

/// An exception out of the main routine ends the program, as out of any thread.
void RunServiceMain(ServiceMainRoutine serviceMain, unsigned run) noexcept {
    serviceMain();
    const std::lock_guard hold(Hosted().lock);
    if (Hosted().run == run) EnterPhase(Hosted(), Phase::ended);
}

bool AsksForStop(int signal) { return signal == SIGTERM || signal == SIGINT; }

std::uint32_t StopControlOf(std::uint32_t accepted) {
    const bool takesShutdown = (accepted & service_accepts::shutdown) != 0;
    if (takesShutdown && systemd::IsMachineGoingDown(managerPatience)) return service_control::shutdown;
    return (accepted & service_accepts::stop) != 0 ? service_control::stop : 0;
}

/// The control that a signal stands for; 0 when it stands for none, or the service does not accept it.
std::uint32_t ControlOf(int signal, std::uint32_t accepted) {
    if (AsksForStop(signal)) return StopControlOf(accepted);
    const bool takesPause = (accepted & service_accepts::pauseAndContinue) != 0;
    switch (signal) {
        case SIGUSR1:
            return takesPause ? service_control::pause : 0;
        case SIGUSR2:
            return takesPause ? service_control::resume : 0;
        default:
            return 0;
    }
}

/// Takes one signal and calls the handler if the signal stands for a control that the service accepts; false when it
/// asks for a stop before anything has been reported.
bool DeliverSignal(int signals) {
    signalfd_siginfo taken{};
    if (read(signals, &taken, sizeof taken) != sizeof taken) return true;
    const int signal = static_cast<int>(taken.ssi_signo);
    std::uint32_t accepted = 0;
    {
        const std::lock_guard hold(Hosted().lock);
        if (Hosted().phase == Phase::starting) return !AsksForStop(signal);
        if (Hosted().phase == Phase::takingControls) accepted = Hosted().controlsAccepted;
    }
    const std::uint32_t control = ControlOf(signal, accepted);
    if (control != 0) Hosted().handler(control, 0, nullptr, Hosted().context);
    return true;
}

/// The dispatcher's life: one control after another until the main routine has returned; false when the start is given
/// up, and the main routine still runs. An exception out of the handler ends the program.
bool DeliverControls(int signals, int wake) noexcept {
    for (Phase phase = CurrentPhase(); phase != Phase::ended; phase = CurrentPhase()) {
        const int watchedSignals = phase <= Phase::takingControls ? signals : -1;  // below 0: not watched
        std::array<pollfd, 2> watched{{{wake, POLLIN, 0}, {watchedSignals, POLLIN, 0}}};
        poll(watched.data(), watched.size(), -1);
        eventfd_t count = 0;
        if (watched[0].revents != 0) eventfd_read(wake, &count);
        if (watched[1].revents != 0 && !DeliverSignal(signals)) return false;
    }
    return true;
}

Error StartServiceCtrlDispatcherW(std::u16string_view serviceName, ServiceMainRoutine serviceMain) {
    if (!IsStartedByManager()) return error::serviceControllerConnect;
    const HeldSignals held;
    const Descriptor signals(signalfd(-1, &held.set(), SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals) return ErrorFromErrno(errno);
    const Descriptor wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) return ErrorFromErrno(errno);
    const Hosting hosting(serviceName, wake.get());
    std::thread mainThread(RunServiceMain, serviceMain, hosting.run());
    if (DeliverControls(signals.get(), wake.get())) {
        mainThread.join();
    } else {
        mainThread.detach();  // it may read its settings for long yet, and the process ends now
    }
    return error::success;
}

Error RegisterServiceCtrlHandlerExW(std::u16string_view serviceName, ServiceHandlerRoutine handler, void* context,
                                    ServiceStatusHandle& handle) {
    handle = 0;
    HostedService& service = Hosted();
    const std::lock_guard hold(service.lock);
    if (service.wake < 0 || service.name != serviceName) return error::serviceDoesNotExist;
    service.handler = handler;
    service.context = context;
    handle = theService;
    return error::success;
}

/// What the manager is told of a state; empty for what is not a state.
std::string NoticeOf(ServiceState state, const std::string& runningText) {
    switch (state) {
        case ServiceState::startPending:
            return "STATUS=Starting";
        case ServiceState::running:
            return "READY=1\nSTATUS=" + runningText;
        case ServiceState::pausePending:
            return "STATUS=Pausing";
        case ServiceState::paused:
            return "STATUS=Paused: collection goes on";
        case ServiceState::continuePending:
            return "STATUS=Continuing";
        case ServiceState::stopPending:
            return "STOPPING=1\nSTATUS=Stopping";
        case ServiceState::stopped:
            return "STATUS=Stopped";
    }
    return {};
}

/// Where the manager listens; the length is 0 when the address is not of a known kind. "@" begins an abstract name.
socklen_t ManagerAddress(sockaddr_un& address) {
    const char* const socket = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = socket != nullptr ? socket : "";
    if (name.size() < 2 || name.size() >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return 0;
    address = {AF_UNIX, {}};
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

/// Tells the manager something by its protocol. sd_notify(3) does the same, but would wait forever for a manager that
/// does not read.
Error Notify(std::string_view notice) {
    sockaddr_un address{};
    const socklen_t length = ManagerAddress(address);
    if (length == 0) return error::serviceControllerConnect;
    const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sender) return ErrorFromErrno(errno);
    setsockopt(sender.get(), SOL_SOCKET, SO_SNDTIMEO, &noticePatience, sizeof noticePatience);
    const auto* const to = reinterpret_cast<const sockaddr*>(&address);
    if (sendto(sender.get(), notice.data(), notice.size(), MSG_NOSIGNAL, to, length) >= 0) return error::success;
    return errno == EAGAIN ? error::serviceRequestTimeout : ErrorFromErrno(errno);
}

Error SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status) {
    const ServiceState state = status.dwCurrentState;
    HostedService& service = Hosted();
    const std::lock_guard hold(service.lock);
    if (handle != theService || service.handler == nullptr) return error::invalidHandle;
    const std::string notice = NoticeOf(state, service.statusText);
    if (notice.empty()) return error::invalidData;
    // What was reported counts, whether the manager hears of it or not.
    service.state = state;
    service.controlsAccepted = status.dwControlsAccepted;
    const bool stops = state == ServiceState::stopPending || state == ServiceState::stopped;
    EnterPhase(service, stops ? Phase::stopping : Phase::takingControls);
    return Notify(notice);
}

Error SetStatusText(ServiceStatusHandle handle, std::string_view text) {
    HostedService& service = Hosted();
    const std::lock_guard hold(service.lock);
    if (handle != theService || service.handler == nullptr) return error::invalidHandle;
    service.statusText = text.substr(0, text.find('\n'));
    return service.state == ServiceState::running ? Notify("STATUS=" + service.statusText) : error::success;
}

}  // namespace

ServiceHostOperations LinuxServiceHost() {
    return {.StartServiceCtrlDispatcherW = Guarded(StartServiceCtrlDispatcherW),
            .RegisterServiceCtrlHandlerExW = RegisterServiceCtrlHandlerExW,
            .SetServiceStatus = Guarded(SetServiceStatus),
            .SetStatusText = Guarded(SetStatusText)};
}

}  // namespace platform
