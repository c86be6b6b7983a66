#include "tools/kvagentctl/status/agent_facts.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "agent/directory_lock.h"
#include "foundation/agent_health.h"
#include "foundation/agent_settings.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/hash_table.h"
#include "foundation/open_file.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/service_manager.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/status/status_text.h"
#include "tools/kvreg/registry_tree.h"

namespace kv::control {

namespace {

using platform::Error;
using platform::Utf8FromWide;
namespace error = platform::error;

/// A setting's text; absent when it is absent or of another type. A registry that cannot be read is noted.
OptionalText Setting(AgentFacts& facts, std::u16string_view key, std::u16string_view name) {
    OptionalText text;
    const Error result = LookUpText(key, name, text);
    const bool isReadable = result == error::success || result == error::invalidData || IsGone(result);
    const std::string missing = isReadable && IsGone(result) ? EmptyRegistryText() : "";
    if (!isReadable) facts.registryFailure = RegistryFailureText(result);
    if (!missing.empty()) facts.registryFailure = missing;
    return text;
}

/// Notes a setting that the agent cannot do without, and that is absent or not a text.
void GatherNeeded(AgentFacts& facts, const AgentSetting& setting) {
    if (Setting(facts, setting.key, setting.name)) return;
    RegFileValue value;
    const std::string title = SettingTitle(setting);
    if (ReadValue(setting.key, setting.name, value) == error::success)
        facts.faultySettings.push_back(title + " " + SettingFault(setting, value.type, value.data));
    else
        facts.missingSettings.push_back(title);
}

void GatherSettings(AgentFacts& facts, std::u16string& binPath) {
    for (const AgentSetting& setting : AgentSettings()) {
        if (setting.use == SettingUse::required) GatherNeeded(facts, setting);
        if (!facts.registryFailure.empty()) return facts.missingSettings.clear(), facts.faultySettings.clear();
    }
    const OptionalText directory = Setting(facts, agentKeyPath, u"KVAgentInstallDir");
    if (directory) binPath = *directory + u"monitoring\\bin\\";
    if (directory) facts.binPath = NativeName(binPath);
    facts.isInstallLost = directory && !MayExist(*directory);
    facts.isBinLost = directory && !facts.isInstallLost && !IsDirectory(binPath);
    if (directory) facts.nativeInstall = NativeName(*directory);
    const std::u16string key = Setting(facts, monitoringKeyPath, u"MonitoringAgentKey").value_or(u"");
    if (key != u"NULL" && key != u"HUBCENTER") facts.key = Utf8FromWide(key);
    const OptionalText name = Setting(facts, serverInfoKeyPath, u"KVServerName");
    if (!name) return;
    const OptionalText protocol = Setting(facts, serverInfoKeyPath, u"KVServerProtocol");
    const OptionalText port = Setting(facts, serverInfoKeyPath, u"KVServerSecurePort");
    const bool isSecure = !protocol || CompareIgnoreCase(protocol, u"https") == 0;
    facts.server =
        fmt::format("{}://{}:{}", isSecure ? "https" : "http", Utf8FromWide(*name), Utf8FromWide(port.value_or(u"?")));
}

const char* StateName(platform::ServiceState state) {
    switch (state) {
        case platform::ServiceState::stopped:
            return "stopped";
        case platform::ServiceState::startPending:
            return "starting";
        case platform::ServiceState::stopPending:
            return "stopping";
        case platform::ServiceState::running:
            return "running";
        case platform::ServiceState::continuePending:
            return "continuing";
        case platform::ServiceState::pausePending:
            return "pausing";
        case platform::ServiceState::paused:
            return "paused; collection goes on";
    }
    return "in an unknown state";
}

/// True when the service runs, or is on its way from or to that.
bool GatherService(AgentFacts& facts) {
    platform::OwnedServiceHandle manager;
    platform::OwnedServiceHandle service;
    platform::ServiceStatus status;
    const platform::ServiceManagerOperations& services = platform::ServiceManager();
    Error result = services.OpenSCManagerW(platform::manager_right::connect, manager.Place());
    if (result == error::success)
        result =
            services.OpenServiceW(manager.get(), serviceName, platform::service_right::queryStatus, service.Place());
    if (result == error::success) result = services.QueryServiceStatusEx(service.get(), status);
    if (result == error::success) {
        facts.service = StateName(status.dwCurrentState);
        return status.dwCurrentState != platform::ServiceState::stopped;
    }
    if (result == error::serviceDoesNotExist)
        facts.service = "not installed";
    else if (result == error::rpcServerUnavailable)
        facts.service = "not known, no service manager answers";
    else
        facts.service = "not known: " + platform::MessageInLine(result);
    return false;
}

void GatherHealth(AgentFacts& facts, std::u16string_view binPath) {
    const std::u16string path = HealthFilePath(binPath);
    if (!MayExist(path)) return;
    const std::string fault = OwnFileFault(path);
    std::string failure;
    if (fault.empty()) facts.health = ReadHealthFile(path, failure);
    if (!facts.health)
        facts.healthFailure =
            fmt::format("{} {}", NativeName(path),
                        fault.empty() ? "cannot be read: " + failure + "; an agent that runs writes it again" : fault);
}

/// Whether an agent of another directory wrote the file, which was copied here with all else. Agents before this one
/// did not write their directory.
bool IsOfAnotherDirectory(const AgentFacts& facts) {
    const std::string& written = facts.health->directory;
    if (written.empty() || written == facts.binPath) return false;
    const auto path = [](const std::string& name) { return std::filesystem::path(platform::WideFromUtf8(name)); };
    std::error_code unused;
    return !std::filesystem::equivalent(path(written), path(facts.binPath), unused);
}

/// Looks whether the process that wrote the file still runs; true when it does. A number that another program has by
/// now is not it.
bool GatherProcess(AgentFacts& facts) {
    const HealthSnapshot& health = *facts.health;
    if (IsOfAnotherDirectory(facts)) {
        facts.process =
            fmt::format("status.json is a copy from the agent of {}, and none has run here since", health.directory);
        return false;
    }
    if (health.processId == 0) {
        facts.process = "stopped " + TimeWithAge(health.writeTime, facts.now);
        return false;
    }
    std::u16string name;
    const Error result = platform::Processes().GetProcessName(static_cast<std::uint32_t>(health.processId), name);
    const bool runs = result == error::success && name == u"MonitoringAgent";
    if (runs)
        facts.process = fmt::format("process {} since {}", health.processId, TimeText(health.startTime));
    else if (result != error::success && result != error::fileNotFound)
        facts.process = fmt::format("process {} cannot be looked at: {}", health.processId, ReasonText(result));
    else if (health.isInConsole)
        facts.process = fmt::format("process {} in the console (/t) was ended after {}", health.processId,
                                    TimeText(health.writeTime));
    else
        facts.process = fmt::format("process {} has ended without a stop", health.processId);
    return runs;
}

bool IsAgent(std::uint32_t processId) {
    std::u16string name;
    const Error result = platform::Processes().GetProcessName(processId, name);
    return processId != 0 && result == error::success && name == u"MonitoringAgent";
}

/// The process that works in a bin directory, by its lock; 0 when none does, or nobody tells.
std::uint32_t ProcessAtWork(std::u16string_view binPath) {
    std::uint32_t processId = 0;
    if (platform::Files().FindDirectoryLock(binPath, lockFileName, processId) == error::fileNotFound) return 0;
    if (processId == 0) processId = RecordedProcess(binPath);
    return IsAgent(processId) ? processId : 0;
}

/// Without settings nobody knows where an agent works. The package's works beside the file of the settings, which
/// somebody may have deleted.
void GatherLostAgent(AgentFacts& facts) {
    const std::filesystem::path file = platform::RegistryFile();
    if (file.empty()) return;
    const std::u16string binPath = (file.parent_path() / "monitoring" / "bin" / "").u16string();
    const std::uint32_t worker = ProcessAtWork(binPath);
    if (worker == 0) return;
    facts.isRunning = true;
    facts.process = fmt::format("process {} in {}, which began with other settings", worker, NativeName(binPath));
}

/// Whether an agent runs. One whose status file does not tell is known to the service manager, by its lock, or by its
/// log, which it keeps open.
void GatherActivity(AgentFacts& facts, const std::u16string& binPath) {
    const bool isServiceActive = GatherService(facts);
    const bool hasWriter = facts.health && GatherProcess(facts);
    facts.isRunning = isServiceActive || hasWriter;
    if (binPath.empty()) return GatherLostAgent(facts);
    if (hasWriter) return;
    const std::uint32_t worker = ProcessAtWork(binPath);
    const std::u16string log = binPath + u"..\\logs\\agent.log";
    const bool isLogOpen = worker == 0 && platform::Files().GetFileUseState(log) == error::sharingViolation;
    facts.isRunning = isServiceActive || worker != 0 || isLogOpen;
    if (!facts.isRunning && !facts.health && facts.healthFailure.empty() && MayExist(log))
        facts.process =
            fmt::format("{} is missing, beside the log of an earlier run", NativeName(HealthFilePath(binPath)));
    if (!facts.isRunning) return;
    facts.process = worker != 0 ? fmt::format("process {}", worker)
                    : isLogOpen ? fmt::format("a process that keeps {} open", NativeName(log))
                                : "";
    if (!facts.healthFailure.empty()) return;
    facts.healthFailure = fmt::format(
        "{} is {}, although the agent runs; it is written again within a minute; else the log says why not, such as a "
        "full disk",
        NativeName(HealthFilePath(binPath)),
        facts.health ? "of an earlier run (" + TimeText(facts.health->writeTime) + ")" : "missing");
}

/// When a file was written, seconds since 1970; 0 when that cannot be told.
std::int64_t WriteTimeOf(std::u16string_view path) {
    OpenFile file;
    platform::FileInformation information;
    Error result = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                             platform::FileDisposition::openExisting);
    if (result == error::success) result = platform::Files().GetFileInformationByHandle(file.handle, information);
    return result == error::success ? SecondsOfFileTime(information.lastWriteTime) : 0;
}

void CountPlan(const HashTable* document, PlanFacts& plan) {
    const Vector* workflows = GetHashVector(document, u"WorkFlows");
    if (!workflows) {
        plan.failure = "it has no list WorkFlows";
        return;
    }
    for (const VectorElement* element = workflows->head; element; element = element->next) {
        ++plan.workflows;
        const auto* workflow =
            element->type == ValueType::table ? reinterpret_cast<const HashTable*>(element->value) : nullptr;
        const Vector* records = workflow ? GetHashVector(workflow, u"recordSetName") : nullptr;
        if (records) plan.records += static_cast<std::uint64_t>(records->count);
    }
}

void GatherPlan(AgentFacts& facts, const std::u16string& binPath) {
    PlanFacts& plan = facts.plan;
    const std::u16string path = ConcatStrings(binPath, conf_path::ownPlan);
    const std::u16string refused = ConcatStrings(binPath, conf_path::refusedPlan);
    plan.file = NativeName(path);
    plan.refusedTime = WriteTimeOf(refused);
    if (plan.refusedTime != 0) plan.refusedFile = NativeName(refused);
    if (!MayExist(path)) {
        plan.isAbsent = PlansOfSlaves(binPath).empty();
        plan.failure = plan.isAbsent
                           ? "there is no plan: nothing is collected, unless the agent began with one that has gone"
                           : "there is no plan: only for slaves is collected";
        return;
    }
    plan.time = WriteTimeOf(path);
    const PlanFile read = ReadPlanFile(path);
    if (read.document)
        CountPlan(read.document.get(), plan);
    else
        plan.failure = read.failure;
}

void GatherDisk(AgentFacts& facts, const std::u16string& binPath) {
    facts.records = MeasureWaitingRecords(binPath);
    facts.zips = MeasureWaitingZips(binPath);
    std::uint64_t available = 0;
    facts.diskError = platform::Files().GetDiskFreeSpaceExW(binPath, available);
    if (facts.diskError == error::success) facts.freeBytes = available;
}

/// A running agent writes its status.json at the latest after ten minutes.
constexpr std::int64_t silentSeconds = 900;

/// A count of what the agent tells; 0 when it does not.
std::uint64_t CountOf(const HealthSnapshot& health, std::string_view name) {
    const auto found = std::find_if(health.counts.begin(), health.counts.end(),
                                    [name](const auto& count) { return count.first == name; });
    return found == health.counts.end() ? 0 : found->second;
}

/// Collects problems in the order of their weight.
class Judge {
  public:
    Judge(const AgentFacts& facts, const Thresholds& thresholds) : facts_(facts), thresholds_(thresholds) {}

    std::vector<Problem> Problems() {
        JudgeAgent();
        JudgeReadability();
        JudgeQueue();
        JudgePlan();
        std::stable_sort(problems_.begin(), problems_.end(),
                         [](const Problem& a, const Problem& b) { return Rank(a) > Rank(b); });
        return std::move(problems_);
    }

  private:
    /// What is surely critical stands before what is not known, and that before a warning.
    static int Rank(const Problem& problem) {
        constexpr int ranks[] = {0, 1, 3, 2};  // by PluginStatus
        return ranks[static_cast<std::size_t>(problem.severity)];
    }
    void Add(PluginStatus severity, std::string text) { problems_.push_back({severity, std::move(text)}); }
    void AddIf(bool holds, PluginStatus severity, std::string_view text) {
        if (holds) Add(severity, std::string(text));
    }

    void JudgeAgent();
    void JudgeRegistration();
    void JudgeCollection();
    void JudgeSending(const HealthSnapshot& health);
    void JudgeReadability();
    void JudgeQueue();
    void JudgePlan();

    const AgentFacts& facts_;
    const Thresholds& thresholds_;
    std::vector<Problem> problems_;
};

void Judge::JudgeAgent() {
    if (!facts_.registryFailure.empty()) Add(PluginStatus::unknown, "settings: " + facts_.registryFailure);
    const bool isKnown = facts_.healthFailure.empty() && facts_.registryFailure.empty() && !facts_.isInstallLost;
    if (!facts_.isRunning && isKnown)
        Add(PluginStatus::critical, facts_.process.empty() ? "the agent does not run, and has not run here before"
                                                           : "the agent does not run: " + facts_.process);
    if (!facts_.missingSettings.empty())
        Add(PluginStatus::critical, fmt::format("{} {} missing", fmt::join(facts_.missingSettings, ", "),
                                                facts_.missingSettings.size() == 1 ? "is" : "are"));
    for (const std::string& fault : facts_.faultySettings) Add(PluginStatus::critical, fault);
    if (facts_.isInstallLost)
        Add(PluginStatus::critical,
            fmt::format("KVAgentInstallDir names a directory that does not exist, {}; an agent that runs with it "
                        "writes nothing that could be seen here",
                        facts_.nativeInstall));
    const bool isSetUp = facts_.missingSettings.empty() && facts_.faultySettings.empty();
    if (facts_.registryFailure.empty() && isSetUp && facts_.key.empty()) JudgeRegistration();
    if (facts_.isRunning && facts_.health && !facts_.key.empty()) JudgeSending(*facts_.health);
    const std::int64_t written = facts_.health ? facts_.health->writeTime : 0;
    if (facts_.isRunning && written != 0 && facts_.now - written > silentSeconds)
        Add(PluginStatus::warning, "the agent has told nothing of itself since " + TimeText(written) +
                                       ": it hangs, or a signal has stopped it");
    JudgeCollection();
}

/// What is in the way of collecting, and records that were lost not long ago.
void Judge::JudgeCollection() {
    constexpr std::int64_t attention = 3600;  // seconds
    const HealthSnapshot health = facts_.health.value_or(HealthSnapshot());
    if (!health.isCollecting)
        Add(PluginStatus::critical, "collection is stopped since " + TimeText(health.collectionStopTime));
    // A plan that cannot be used has a line of its own.
    if (facts_.isRunning && !health.obstacle.empty() && (facts_.isBinLost || facts_.plan.failure.empty()))
        Add(PluginStatus::critical, "nothing is collected: " + health.obstacle);
    else if (facts_.isBinLost)
        Add(PluginStatus::critical,
            facts_.binPath + " does not exist, so nothing is collected; the agent makes it when it is started again");
    const std::int64_t end = health.lostRecordTime + attention;
    if (health.lostRecordTime != 0 && facts_.now < end)
        Add(PluginStatus::warning,
            fmt::format("{} lost since the start of the agent, the last at {}: {} (told until {})",
                        Counted(CountOf(health, "recordsLost"), "record"), TimeText(health.lostRecordTime),
                        health.lostRecord, TimeText(end)));
}

/// An agent that has registered works with its key until its end, also when the setting has gone since.
void Judge::JudgeRegistration() {
    const std::string outcome = facts_.health ? facts_.health->registration : "";
    if (outcome == registeredOutcome)
        Add(PluginStatus::warning,
            fmt::format(
                "Monitoring\\MonitoringAgentKey is missing, although the agent registered at {}; its next start "
                "registers it again",
                TimeText(facts_.health->registrationTime)));
    else
        Add(PluginStatus::critical, "not registered yet" + (outcome.empty() ? "" : ": " + outcome));
}

/// One lost packet is not worth a warning: the failures have gone on for a while, and came more than once.
void Judge::JudgeSending(const HealthSnapshot& health) {
    constexpr std::int64_t patience = 600;  // seconds
    constexpr std::int64_t apart = 60;
    const std::int64_t since = health.sendingFailsSince;
    if (IsDistrusting(health))
        Add(PluginStatus::critical,
            fmt::format("nothing reaches the server, last contact {}: {}",
                        TimeWithAge(health.lastContactTime, facts_.now), health.sendingFailure));
    else if (since != 0 && facts_.now - since >= patience && health.sendingFailureTime - since >= apart)
        Add(PluginStatus::warning,
            fmt::format("sending fails since {}: {}", TimeWithAge(since, facts_.now), health.sendingFailure));
}

void Judge::JudgeReadability() {
    if (!facts_.healthFailure.empty()) Add(PluginStatus::unknown, facts_.healthFailure);
    if (facts_.diskError != error::success && !facts_.isBinLost)
        Add(PluginStatus::unknown,
            fmt::format("the disk room at {} cannot be told: {}", facts_.binPath, ReasonText(facts_.diskError)));
    for (const auto& [waiting, folder] : {std::pair{&facts_.records, "data"}, {&facts_.zips, "zipdata"}}) {
        if (waiting->error != error::success)
            Add(PluginStatus::unknown, fmt::format("what waits in {}{} cannot be looked at: {}", facts_.binPath, folder,
                                                   ReasonText(waiting->error)));
    }
}

void Judge::JudgeQueue() {
    const std::int64_t age = facts_.zips.oldestTime == 0 ? 0 : facts_.now - facts_.zips.oldestTime;
    const std::string old =
        fmt::format("the oldest of {} has waited for {}", Counted(facts_.zips.number, "zip"), DurationText(age));
    if (age < -futureTolerance)
        Add(PluginStatus::warning,
            fmt::format("the zips are of a time in the future, the oldest of {}: was the clock set "
                        "back? How long they have waited is not known",
                        TimeText(facts_.zips.oldestTime)));
    AddIf(age >= thresholds_.criticalAge, PluginStatus::critical, old);
    AddIf(age >= thresholds_.warningAge && age < thresholds_.criticalAge, PluginStatus::warning, old);
    if (!facts_.freeBytes) return;
    const std::uint64_t free = *facts_.freeBytes;
    const std::string room = fmt::format("the disk has room for {} only", SizeText(free));
    AddIf(free < thresholds_.criticalFree, PluginStatus::critical, room);
    AddIf(free < thresholds_.warningFree && free >= thresholds_.criticalFree, PluginStatus::warning, room);
}

void Judge::JudgePlan() {
    const PlanFacts& plan = facts_.plan;
    if (!facts_.hasPlace()) return;
    if (!plan.failure.empty()) Add(PluginStatus::warning, fmt::format("plan {}: {}", plan.file, plan.failure));
    if (plan.refusedTime > plan.time)
        Add(PluginStatus::warning, fmt::format("a newer plan was refused, see the log: {}", plan.refusedFile));
}

}  // namespace

AgentFacts GatherFacts() {
    AgentFacts facts;
    facts.now = GetNowSeconds();
    std::u16string binPath;
    GatherSettings(facts, binPath);
    if (facts.hasPlace()) {
        GatherHealth(facts, binPath);
        GatherPlan(facts, binPath);
        GatherDisk(facts, binPath);
    }
    GatherActivity(facts, binPath);
    return facts;
}

std::vector<Problem> JudgeFacts(const AgentFacts& facts, const Thresholds& thresholds) {
    return Judge(facts, thresholds).Problems();
}

}  // namespace kv::control
