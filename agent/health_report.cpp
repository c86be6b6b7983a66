#include "agent/health_report.h"

#include <atomic>
#include <exception>
#include <fmt/format.h>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "agent/directory_lock.h"
#include "agent/log_file.h"
#include "agent/metrics_file.h"
#include "exchange/waiting_files.h"
#include "foundation/agent_health.h"
#include "foundation/agent_settings.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "platform/memory.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/service_host.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
namespace error = platform::error;

constexpr std::int64_t periodSeconds = 60;

/// Another process may have written the file: then an idle agent is not to look dead.
constexpr std::int64_t rewriteSeconds = 600;

/// How long a stop waits for a report that is on its way: the server is still to be told.
constexpr int stopLooks = 20;
constexpr std::uint32_t stopPause = 50;  // milliseconds between two of them

/// How long a report waits for the metrics, whose folder may be on a mount that does not answer, in milliseconds.
constexpr std::uint32_t metricsPatience = 10000;

/// Events come together, as when several zips are accepted: one report is enough for them.
constexpr std::uint32_t gatherMilliseconds = 2000;

/// A file that is written again and again, and whether that fails now.
struct RewrittenFile {
    std::u16string path;
    bool isFailing = false;

    /// Writes a line when writing begins to fail, and when it works again.
    void TakeResult(Error result) {
        const bool fails = result != error::success;
        if (fails == std::exchange(isFailing, fails)) return;
        if (result == error::alreadyExists)
            Log1(
                "\t ReportHealth :: %s is not written, because it is not a file of the agent's metrics: name another "
                "one in MetricsFile. It is tried again each minute\n",
                path);
        else if (fails && IsDirectory(path))
            Log1("\t ReportHealth :: %s is a directory, not a file. It is tried again each minute\n", path);
        else if (fails)
            Log1("\t ReportHealth :: %s cannot be written: %s (error %d). It is tried again each minute\n", path,
                 platform::MessageInLine(result), result);
        else
            Log1("\t ReportHealth :: %s is written again\n", path);
    }
};

/// What has been reported in this run. Guarded by its locks, because a stop reports on another thread.
struct Report {
    std::mutex lock;
    RewrittenFile status;
    std::optional<HealthSnapshot> written;
    std::int64_t statusTime = 0;
    std::string line;
    std::int64_t lineTime = 0;
    std::uint32_t storedLogLevel = 0;  // as it was last read

    // Apart, because the folder of the metrics is anywhere, and may keep a write waiting.
    std::mutex metricsLock;
    RewrittenFile metrics;  // without a path: not wanted
    std::atomic<bool> isWritingMetrics = false;

    // Of the reporting thread alone.
    bool wantsMetrics = false;
    std::int64_t metricsTime = 0;
    platform::EventHandle metricsEnd = 0;  // set when a write has ended; made once
    bool isWaitingForMetrics = false;      // longer than it should
};

Report& CurrentReport() {
    static auto* const report = new Report;  // threads report until the process ends
    return *report;
}

std::u16string BinPath() { return agentState.gv_ocAgentBinPath.value_or(u""); }

/// The path that MetricsFile sets; empty when none is set, or none that can be used, which leaves a line.
std::u16string MetricsPath() {
    OptionalText path;
    const Error result = LookUpText(monitoringKeyPath, u"MetricsFile", path);
    if (result == error::fileNotFound || result == error::pathNotFound || path == u"") return {};
    const bool isWhole = result == error::success && path && IsWholePath(*path);
    if (isWhole && SettingTakes(*FindAgentSetting(monitoringKeyPath, u"MetricsFile"), *path)) return *path;
    if (isWhole)
        Log1("\t ReportHealth :: MetricsFile is one of the agent's own files, and no metrics are written: %s\n", path);
    else if (result == error::success)
        Log1("\t ReportHealth :: MetricsFile is not a whole path, and no metrics are written: %s\n", path);
    else
        Log1("\t ReportHealth :: MetricsFile cannot be read as a text, and no metrics are written: %s (error %d)\n",
             platform::MessageInLine(result), result);
    return {};
}

void BeginReport(Report& report) {
    agentHealth.startTime = GetNowSeconds();
    const std::scoped_lock hold(report.lock, report.metricsLock);
    report.status = {.path = HealthFilePath(BinPath())};
    report.written.reset();
    report.statusTime = report.lineTime = 0;
    report.line.clear();
    report.storedLogLevel = logState.gv_logLevel;
    report.metrics = {};
    report.metricsTime = 0;
    if (report.metricsEnd == 0 && platform::Threads().CreateEventW(report.metricsEnd)) report.metricsEnd = 0;
    report.metrics.path = MetricsPath();
    report.wantsMetrics = !report.metrics.path.empty() && report.metricsEnd != 0;
}

/// The number that is recorded may be this one's, of an earlier run in a container.
bool AnotherWorks() {
    std::uint32_t worker = 0;
    return FindWorkingAgent(BinPath(), worker) == error::success &&
           worker != platform::Processes().GetCurrentProcessId();
}

/// Whether the files are, or may be, those of another process: of one that is waited for, or works where this one waits
/// for the bin directory; for "/t" those of the service, where the directory cannot be locked.
bool IsGuest() {
    if (HoldsDirectory()) return false;
    if (WaitsForAgent() || (WaitsForDirectory() && AnotherWorks())) return true;
    return agentState.gv_serviceStatusHandle == 0 && IsLogOfAnotherProcess();
}

/// Whether a time has passed since a moment; also when the clock was set back before it.
bool IsDue(std::int64_t since, std::int64_t now, std::int64_t seconds = periodSeconds) {
    return now - since >= seconds || now < since;
}

/// An absent level is the default one; one that cannot be read changes nothing.
void FollowLogLevel(Report& report) {
    std::uint32_t stored = 1;
    const Error result = LookUpNumber(agentKeyPath, u"AgentLogLevel", stored);
    if (result != error::success && result != error::fileNotFound) return;
    if (std::exchange(report.storedLogLevel, stored) == stored) return;
    const std::uint32_t former = logState.gv_logLevel;
    // The line is written at the higher of the two, so that a change from or to 0 leaves it, too.
    if (former == 0) logState.gv_logLevel = stored;
    Log1("\t ReportHealth :: AgentLogLevel goes from %u to %u\n", former, stored);
    logState.gv_logLevel = stored;
}

/// True when there was something to write; also when somebody has deleted the file.
bool WriteStatus(Report& report, const HealthSnapshot& health) {
    if (IsGuest()) return false;
    if (report.written) report.written->writeTime = health.writeTime;
    const bool isTold = report.written == health && !report.status.isFailing && MayExist(report.status.path);
    if (isTold && !IsDue(report.statusTime, health.writeTime, rewriteSeconds)) return false;
    report.status.TakeResult(WriteHealthFile(report.status.path, health));
    report.written = health;
    report.statusTime = health.writeTime;
    return true;
}

void WriteMetrics(Report& report, const HealthSnapshot& health) {
    if (report.metrics.path.empty() || IsGuest()) return;
    const std::u16string binPath = BinPath();
    const std::string text = MetricsText(health, MeasureWaitingRecords(binPath), MeasureWaitingZips(binPath));
    report.metrics.TakeResult(WriteMetricsFile(report.metrics.path, text));
}

/// Why the server's port cannot be used, behind its name.
const char* PortFault() {
    OptionalText text;
    return LookUpText(serverInfoKeyPath, u"KVServerSecurePort", text) == error::success ? " is not a port"
                                                                                        : " is missing";
}

/// Whether the first registration is still on its way, so that there is nothing to tell yet. After a period without an
/// outcome there is.
bool AwaitsRegistration(const HealthSnapshot& health) {
    return health.registrationTime == 0 && !IsDue(health.startTime, health.writeTime) && SettingObstacle().empty();
}

void TellServiceManager(Report& report, const HealthSnapshot& health) {
    if (agentState.gv_serviceStatusHandle == 0 || !IsDue(report.lineTime, health.writeTime)) return;
    if (AwaitsRegistration(health)) return;
    std::string line = HealthLine(health, CountWaitingZips(BinPath()));
    if (line == report.line) return;
    platform::ServiceHost().SetStatusText(agentState.gv_serviceStatusHandle, line);
    report.line = std::move(line);
    report.lineTime = health.writeTime;
}

/// True when it has written to the disk.
bool ReportStatus(Report& report, const HealthSnapshot& health) {
    const std::lock_guard hold(report.lock);
    if (agentHealth.isReportOver) return false;
    FollowLogLevel(report);
    const bool hasWritten = WriteStatus(report, health);
    TellServiceManager(report, health);
    return hasWritten;
}

/// The body of a thread for one write, so that a folder that does not answer keeps nothing else waiting.
void WriteMetricsApart(Report& report, const HealthSnapshot& health) {
    RunGuarded("ReportMetrics", [&] {
        const std::lock_guard hold(report.metricsLock);
        if (!agentHealth.isReportOver) WriteMetrics(report, health);
    });
    // In this order, so that this end is not taken for that of the next write.
    platform::Threads().SetEvent(report.metricsEnd);
    report.isWritingMetrics = false;
}

/// Begins a write and waits a while for its end; false when it goes on.
bool WriteMetricsInTime(Report& report, const HealthSnapshot& health) {
    platform::Threads().ResetEvent(report.metricsEnd);
    report.isWritingMetrics = true;
    try {
        std::thread(WriteMetricsApart, std::ref(report), health).detach();
    } catch (const std::exception&) {  // no thread, or no memory
        report.isWritingMetrics = false;
        throw;
    }
    return platform::Threads().WaitForEvent(report.metricsEnd, metricsPatience) == error::success;
}

void ReportMetrics(Report& report, const HealthSnapshot& health) {
    if (!report.wantsMetrics || agentHealth.isReportOver || !IsDue(report.metricsTime, health.writeTime)) return;
    report.metricsTime = health.writeTime;
    const bool isInTime = !report.isWritingMetrics && WriteMetricsInTime(report, health);
    if (std::exchange(report.isWaitingForMetrics, !isInTime) == !isInTime) return;
    if (isInTime)
        Log1("\t ReportHealth :: the folder of MetricsFile answers again\n");
    else
        Log1(
            "\t ReportHealth :: MetricsFile is not written: its folder has not answered for %u seconds. The metrics "
            "wait for it; all else goes on\n",
            metricsPatience / 1000);
}

void ReportOnce() {
    Report& report = CurrentReport();
    const HealthSnapshot health = CurrentHealth();
    RunGuarded("ReopenDeletedLog", ReopenDeletedLog);  // and its folder, in which status.json is, too
    const bool hasWritten = ReportStatus(report, health);
    ReportMetrics(report, health);
    if (!hasWritten) return;
    // The code for it is not needed for another minute, and an idle agent is to be small.
    platform::ReleaseFreeMemory();
    platform::TrimResidentLibraryPages();
}

/// Waits for an event of weight or the end of the period, a tick count, which moves on when it has come.
void WaitForNextReport(platform::EventHandle wake, std::uint64_t& periodEnd) {
    constexpr std::uint64_t period = periodSeconds * 1000;
    const std::uint64_t now = platform::Clock().GetTickCount64();
    if (now >= periodEnd) periodEnd = now + period;
    const auto left = static_cast<std::uint32_t>(periodEnd - now);
    if (wake == 0) return platform::Clock().Sleep(left);
    if (platform::Threads().WaitForEvent(wake, left) != error::success) return;
    platform::Clock().Sleep(gatherMilliseconds);
    platform::Threads().ResetEvent(wake);
}

/// "18:49" of today, and with the date before it of another day.
std::string TimeForPeople(std::int64_t time, std::int64_t now) {
    const platform::LocalTime then = platform::Clock().ToLocalTime(time * 1000);
    const platform::LocalTime today = platform::Clock().ToLocalTime(now * 1000);
    const std::string clock = fmt::format("{:02}:{:02}", then.hour, then.minute);
    const bool isToday = then.year == today.year && then.month == today.month && then.day == today.day;
    return isToday ? clock : fmt::format("{:04}-{:02}-{:02} {}", then.year, then.month, then.day, clock);
}

/// Waits a second at most for a report that is being written; the lock is not held then. It looks again and again,
/// because the thread sanitizer does not see a lock that is waited for by the clock.
std::unique_lock<std::mutex> LockInTime(std::mutex& mutex) {
    std::unique_lock lock(mutex, std::try_to_lock);
    for (int look = 0; !lock && look < stopLooks; ++look) {
        platform::Clock().Sleep(stopPause);
        static_cast<void>(lock.try_lock());
    }
    return lock;
}

HealthSnapshot StoppedHealth() {
    HealthSnapshot health = CurrentHealth();
    health.processId = 0;
    return health;
}

/// "sending fails since 18:49: ..."; the polls of an agent that has nothing to send fail without a beginning.
std::string SendingFailure(const HealthSnapshot& health) {
    const std::string since =
        health.sendingFailsSince == 0 ? "" : " since " + TimeForPeople(health.sendingFailsSince, health.writeTime);
    return fmt::format("sending fails{}: {}", since, health.sendingFailure);
}

bool IsKey(std::u16string_view text) { return !text.empty() && text != u"NULL" && text != u"HUBCENTER"; }

}  // namespace

std::uint32_t ReportHealth(void* /*ignored*/) {
    Log3("\t Inside ReportHealth() \n");
    platform::EventHandle wake = 0;
    RunGuarded("ReportHealth", [] { BeginReport(CurrentReport()); });
    if (platform::Threads().CreateEventW(wake) == error::success) agentHealth.wake = wake;
    for (std::uint64_t periodEnd = 0;;) {
        RunGuarded("ReportHealth", ReportOnce);
        WaitForNextReport(wake, periodEnd);
    }
}

void ReportObstacle() {
    Report& report = CurrentReport();
    const std::lock_guard hold(report.lock);
    if (agentHealth.isReportOver) return;
    if (agentHealth.startTime == 0) agentHealth.startTime = GetNowSeconds();
    report.status.path = HealthFilePath(BinPath());
    WriteStatus(report, CurrentHealth());
}

void ReportStop() {
    Report& report = CurrentReport();
    if (agentHealth.isReportOver.exchange(true)) return;
    const std::unique_lock hold = LockInTime(report.lock);
    if (!hold)
        Log1("\t ReportStop :: a report is still being written, and status.json does not tell of the stop\n");
    else if (!report.status.path.empty())  // else the stop came before the first report
        WriteStatus(report, StoppedHealth());
}

void ReportStopInMetrics() {
    Report& report = CurrentReport();
    const std::unique_lock hold = LockInTime(report.metricsLock);
    if (hold) WriteMetrics(report, StoppedHealth());
}

std::string SettingObstacle() {
    const AgentState& state = agentState;
    if (!state.gv_ServerName) return "no server: KVServerName is missing";
    if (!state.gv_ServerFlatName) return "no server: KVServerFlatName is missing";
    if (!state.gv_ServerIPAddress) return "no server: KVServerIPAddress is missing";
    const std::int32_t port = state.gv_ServerPort;
    if (port < 1 || port > 65535) return fmt::format("no server: KVServerSecurePort{}", PortFault());
    if (!state.gv_custID) return "CustomerName is missing, and no setting after it is read";
    if (!state.gv_LastAccessName.get()) return "no server: KVLastAccessName is missing";
    if (!state.gv_remoteOfficeName) return "RemoteOfficeName is missing, and no setting after it is read";
    return {};
}

std::string HealthLine(const HealthSnapshot& health, std::uint64_t waitingZips) {
    if (std::string obstacle = SettingObstacle(); !obstacle.empty()) return obstacle;
    const std::string first =
        LogText("%s:%d", agentState.gv_LastAccessName, static_cast<std::int32_t>(agentState.gv_ServerPort));
    const std::u16string_view key = agentState.gv_agentKey.view();
    if (!IsKey(key))
        return fmt::format("not registered yet at {}{}{}", first, health.registration.empty() ? "" : ": ",
                           health.registration);
    std::string line = LogText("%s at %s", key, health.lastAddress.empty() ? first : health.lastAddress);
    line += health.lastUploadTime == 0 ? ", no upload yet"
                                       : ", last upload " + TimeForPeople(health.lastUploadTime, health.writeTime);
    if (waitingZips > 0) line += waitingZips == 1 ? ", 1 zip waits" : fmt::format(", {} zips wait", waitingZips);
    if (logState.gv_logOpenFailed != 0) line += ", without a log: it cannot be opened";
    if (!health.obstacle.empty()) line += ", nothing is collected: " + health.obstacle;
    if (!health.missingPlan.empty()) line += ", " + health.missingPlan;
    if (health.sendingFailsSince != 0 || IsDistrusting(health)) line += ", " + SendingFailure(health);
    if (!health.isCollecting)
        line += ", collection stopped since " + TimeForPeople(health.collectionStopTime, health.writeTime);
    return line;
}

}  // namespace kv
