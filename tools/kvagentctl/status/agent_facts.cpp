#include "tools/kvagentctl/status/agent_facts.h"

#include <filesystem>
#include <fmt/format.h>

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
#include "queryconf/query_config.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/plan_lists.h"
#include "tools/kvagentctl/plan_neighbour.h"
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

/// Whether no directory is there; one that may not be looked at is not lost.
bool IsLost(std::u16string_view directory) {
    std::uint32_t attributes = 0;
    return !IsDirectory(directory) &&
           platform::Files().GetFileAttributesW(directory, attributes) != error::accessDenied;
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
    facts.isBinLost = directory && !facts.isInstallLost && IsLost(binPath);
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

/// Without settings nobody knows where an agent works. The package's works beside the file of the settings, which
/// somebody may have deleted.
void GatherLostAgent(AgentFacts& facts) {
    const std::filesystem::path file = platform::RegistryFile();
    if (file.empty()) return;
    const std::u16string binPath = file.parent_path().u16string() + u"\\monitoring\\bin\\";
    std::uint32_t worker = 0;
    if (FindWorkingAgent(binPath, worker) != error::success) return;
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
    std::uint32_t worker = 0;
    const Error found = FindWorkingAgent(binPath, worker);
    const std::u16string log = binPath + u"..\\logs\\agent.log";
    const bool isLogOpen = worker == 0 && platform::Files().GetFileUseState(log) == error::sharingViolation;
    facts.isRunning = isServiceActive || worker != 0 || isLogOpen;
    if (!facts.isRunning && !facts.health && facts.healthFailure.empty() && MayExist(log))
        facts.process =
            fmt::format("{} is missing, beside the log of an earlier run", NativeName(HealthFilePath(binPath)));
    if (!facts.isRunning && facts.healthFailure.empty() && found == error::accessDenied)
        facts.healthFailure =
            fmt::format("whether an agent works in {} cannot be told: {}", facts.binPath, ReasonText(found));
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

/// Counts what the agent runs. What is not an object is a workflow that was meant only in the expected list.
void CountPlan(const HashTable* document, PlanFacts& plan) {
    const std::vector<PlanList> lists = ListsOf(document, u"");
    bool hasExpected = false;
    for (const PlanList& list : lists) {
        hasExpected = hasExpected || list.isExpected;
        plan.workflows += list.isExpected ? static_cast<std::size_t>(list.workflows->count) : list.objects;
        plan.runnable += list.runnable;
        for (const VectorElement* element = list.workflows->head; element; element = element->next) {
            if (WorkflowFault(element)) continue;
            const auto* const workflow = reinterpret_cast<const HashTable*>(element->value);
            plan.records += static_cast<std::uint64_t>(GetHashVector(workflow, u"recordSetName")->count);
        }
    }
    plan.otherLists = NamesOfOthers(lists);
    if (!hasExpected) plan.failure = "it has no array WorkFlows: " + OutcomeOfUnusable(lists);
}

/// What it means that the agent's own plan does not exist.
std::string AbsentPlanText(const AgentFacts& facts, const std::u16string& path) {
    if (!facts.plan.isAbsent) return "it does not exist, so that only for slaves is collected";
    const bool hasLoaded = facts.health && facts.health->registration == registeredOutcome;
    if (facts.isRunning && hasLoaded && facts.health->obstacle.empty())
        return "it does not exist; the agent goes on with the one that it loaded before, until its end";
    const std::string neighbour = PlanNeighbourHint(path);
    return "it does not exist, so that nothing is collected; " +
           (neighbour.empty() ? "the server sends one, or put one there and start the agent again" : neighbour);
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
        plan.failure = AbsentPlanText(facts, path);
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
    std::uint32_t period = 0;
    if (LookUpNumber(monitoringKeyPath, u"writeInterval", period) == error::success) facts.packingPeriod = period;
    facts.records = MeasureWaitingRecords(binPath);
    facts.zips = MeasureWaitingZips(binPath);
    std::uint64_t available = 0;
    facts.diskError = platform::Files().GetDiskFreeSpaceExW(binPath, available);
    if (facts.diskError == error::success) facts.freeBytes = available;
}

}  // namespace

AgentFacts GatherFacts() {
    AgentFacts facts;
    facts.now = GetNowSeconds();
    std::u16string binPath;
    GatherSettings(facts, binPath);
    if (facts.hasPlace()) GatherHealth(facts, binPath);
    GatherActivity(facts, binPath);
    if (facts.hasPlace()) {
        GatherPlan(facts, binPath);
        GatherDisk(facts, binPath);
    }
    return facts;
}

}  // namespace kv::control
