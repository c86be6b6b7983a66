// kvagentctl status: how the agent is.
#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <utf8.h>
#include <utility>

#include "commandline/run.h"
#include "foundation/agent_health.h"
#include "foundation/registry_failure.h"
#include "foundation/version.h"
#include "platform/messages.h"
#include "tools/kvagentctl/json_text.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/status/problems.h"
#include "tools/kvagentctl/status/status_text.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::UsageError;

constexpr std::int64_t secondsInMinute = 60;
constexpr std::uint64_t bytesInMegabyte = 1'000'000;

constexpr commandline::Option options[] = {
    {"--json", "", "for programs: an object; times are seconds since 1970, 0 for never"},
    {"--plugin", "",
     "for monitoring: one line with performance data, and exit code 0 (fine), 1 (warning), 2 "
     "(critical) or 3 (unknown, and a value that is refused); an option that status does not know ends with 2"},
    {"--warning-age", "MINUTES", "with --plugin: a zip or record that waits for so long is a warning; 30 by default"},
    {"--critical-age", "MINUTES", "with --plugin: and for so long is critical; 360 by default"},
    {"--warning-free", "MB", "with --plugin: less room on the disk is a warning; 200 by default"},
    {"--critical-free", "MB", "with --plugin: and less than this is critical; 20 by default"},
};

// --- for people

using Line = std::pair<std::string, std::string>;

bool IsActivityKnown(const AgentFacts& facts) {
    return facts.isRunning || (facts.registryFailure.empty() && facts.healthFailure.empty() && !facts.isInstallLost);
}

std::string AgentText(const AgentFacts& facts) {
    std::string text = facts.isRunning ? "runs" : IsActivityKnown(facts) ? "does not run" : "not known whether it runs";
    if (!facts.process.empty()) text += ", " + facts.process;
    return fmt::format("{} (service: {})", text, facts.service);
}

std::string WaitingText(const WaitingFiles& waiting, std::string_view what, std::int64_t now) {
    if (waiting.number == 0 && waiting.error != platform::error::success)
        return "not known: " + ReasonText(waiting.error);
    if (waiting.number == 0) return fmt::format("no {} waits", what);
    std::string text = fmt::format("{} {}, {}", Counted(waiting.number, what), waiting.number == 1 ? "waits" : "wait",
                                   SizeText(waiting.bytes));
    if (waiting.oldestTime > now + futureTolerance)
        return fmt::format("{}, the oldest of a time in the future, {}", text, TimeText(waiting.oldestTime));
    if (waiting.oldestTime != 0) text += ", the oldest for " + DurationText(now - waiting.oldestTime);
    return text;
}

std::string PlanText(const PlanFacts& plan) {
    if (!plan.failure.empty()) return fmt::format("{}: {}", plan.file, plan.failure);
    const std::string workflows = Counted(plan.workflows, "workflow");
    const std::string part = plan.runnable == plan.workflows ? "" : fmt::format("{} of ", plan.runnable);
    return fmt::format("{} of {}: {}{}{}, {}{}", plan.file, TimeText(plan.time), part, workflows,
                       part.empty() ? "" : " run", Counted(plan.records, "record"),
                       plan.otherLists.empty() ? "" : ", with those of " + plan.otherLists);
}

std::string CollectionText(const AgentFacts& facts) {
    if (!facts.isRunning) return "off, the agent does not run";
    if (!facts.health->obstacle.empty()) return "nothing: " + facts.health->obstacle;
    if (!facts.health->isCollecting) return "stopped since " + TimeWithAge(facts.health->collectionStopTime, facts.now);
    if (!facts.health->missingPlan.empty()) return "in part: " + facts.health->missingPlan;
    return facts.plan.isAbsent ? "on, by a plan that has gone" : "on";
}

/// The time of an event. An agent knows nothing of its earlier runs.
std::string EventText(std::int64_t time, const HealthSnapshot& health, std::int64_t now) {
    if (time != 0 || health.startTime == 0) return TimeWithAge(time, now);
    return fmt::format("not since the start at {}", TimeText(health.startTime));
}

void AddHealthLines(const AgentFacts& facts, std::vector<Line>& lines) {
    if (!facts.health) {
        lines.emplace_back("uploads", facts.healthFailure.empty() ? "no agent has told of itself here yet"
                                                                  : "not known: " + facts.healthFailure);
        return;
    }
    const HealthSnapshot& health = *facts.health;
    const std::string at = health.lastAddress.empty() ? "" : " at " + health.lastAddress;
    lines.emplace_back("last upload", EventText(health.lastUploadTime, health, facts.now) + at);
    lines.emplace_back("last contact", EventText(health.lastContactTime, health, facts.now));
    lines.emplace_back("registration", health.registrationTime == 0 && !health.registration.empty()
                                           ? health.registration
                                           : EventText(health.registrationTime, health, facts.now) +
                                                 (health.registration.empty() ? "" : ": " + health.registration));
    lines.emplace_back("collection", CollectionText(facts));
    lines.emplace_back("last failure", EventText(health.lastFailureTime, health, facts.now) +
                                           (health.lastFailure.empty() ? "" : ": " + health.lastFailure));
}

std::string ServerText(const AgentFacts& facts) {
    if (!facts.server.empty()) return facts.server;
    return facts.faultySettings.empty() ? "not set: kvagentctl setup" : "not known: kvagentctl check";
}

std::vector<Line> Lines(const AgentFacts& facts) {
    std::vector<Line> lines;
    const std::string version = facts.health ? facts.health->version : std::string(programVersion);
    lines.emplace_back("version",
                       version == programVersion ? version : fmt::format("{}; kvagentctl {}", version, programVersion));
    lines.emplace_back("agent", AgentText(facts));
    if (!facts.registryFailure.empty()) {
        lines.emplace_back("settings", "not known: " + facts.registryFailure);
        return lines;
    }
    const bool hasRegistered = facts.health && facts.health->registration == registeredOutcome;
    lines.emplace_back("key", !facts.key.empty() ? facts.key : hasRegistered ? "missing" : "not registered yet");
    lines.emplace_back("server", ServerText(facts));
    if (!facts.hasPlace()) return lines;
    AddHealthLines(facts, lines);
    lines.emplace_back("plan", PlanText(facts.plan));
    if (facts.plan.refusedTime != 0)
        lines.emplace_back("refused plan",
                           fmt::format("{} of {}", facts.plan.refusedFile, TimeText(facts.plan.refusedTime)));
    lines.emplace_back("records", WaitingText(facts.records, "record", facts.now));
    lines.emplace_back("zips", WaitingText(facts.zips, "zip", facts.now));
    lines.emplace_back("disk room", facts.freeBytes ? fmt::format("{} at {}", SizeText(*facts.freeBytes), facts.binPath)
                                                    : "not known: " + ReasonText(facts.diskError));
    return lines;
}

void PrintForPeople(const AgentFacts& facts, const std::vector<Problem>& problems) {
    std::vector<Line> lines = Lines(facts);
    for (const Problem& problem : problems) lines.emplace_back("attention", problem.text);
    std::size_t width = 0;
    for (const Line& line : lines) width = std::max(width, line.first.size());
    for (const auto& [name, text] : lines)
        fmt::print("{:<{}}{}\n", name + ":", width + 2, commandline::InLine(utf8::replace_invalid(text)));
}

// --- for programs

/// An object of members, which it owns then.
json_object* JsonObject(const std::vector<std::pair<const char*, json_object*>>& members) {
    json_object* object = json_object_new_object();
    for (const auto& [name, value] : members) json_object_object_add(object, name, value);
    return object;
}

json_object* JsonFailure(platform::Error failure) {
    return failure == platform::error::success ? nullptr : JsonText(platform::MessageInLine(failure));
}

json_object* JsonWaiting(const WaitingFiles& waiting) {
    return JsonObject({{"number", json_object_new_uint64(waiting.number)},
                       {"bytes", json_object_new_uint64(waiting.bytes)},
                       {"oldestTime", json_object_new_int64(waiting.oldestTime)},
                       {"failure", JsonFailure(waiting.error)}});
}

json_object* JsonPlan(const PlanFacts& plan) {
    return JsonObject({{"file", JsonText(plan.file)},
                       {"time", json_object_new_int64(plan.time)},
                       {"failure", plan.failure.empty() ? nullptr : JsonText(plan.failure)},
                       {"workflows", json_object_new_uint64(plan.workflows)},
                       {"runnableWorkflows", json_object_new_uint64(plan.runnable)},
                       {"records", json_object_new_uint64(plan.records)},
                       {"refusedTime", json_object_new_int64(plan.refusedTime)},
                       {"refusedFile", plan.refusedFile.empty() ? nullptr : JsonText(plan.refusedFile)}});
}

json_object* JsonHealth(const HealthSnapshot& health) {
    json_object* counts = json_object_new_object();
    for (const auto& [name, count] : health.counts)
        json_object_object_add(counts, name.c_str(), json_object_new_uint64(count));
    return JsonObject({{"version", JsonText(health.version)},
                       {"processId", json_object_new_int64(health.processId)},
                       {"startTime", json_object_new_int64(health.startTime)},
                       {"writeTime", json_object_new_int64(health.writeTime)},
                       {"lastUploadTime", json_object_new_int64(health.lastUploadTime)},
                       {"lastAddress", JsonText(health.lastAddress)},
                       {"lastContactTime", json_object_new_int64(health.lastContactTime)},
                       {"registrationTime", json_object_new_int64(health.registrationTime)},
                       {"registration", JsonText(health.registration)},
                       {"isCollecting", json_object_new_boolean(health.isCollecting)},
                       {"isInConsole", json_object_new_boolean(health.isInConsole)},
                       {"collectionStopTime", json_object_new_int64(health.collectionStopTime)},
                       {"obstacle", JsonText(health.obstacle)},
                       {"missingPlan", JsonText(health.missingPlan)},
                       {"lostRecordTime", json_object_new_int64(health.lostRecordTime)},
                       {"lostRecord", JsonText(health.lostRecord)},
                       {"lastFailureTime", json_object_new_int64(health.lastFailureTime)},
                       {"lastFailure", JsonText(health.lastFailure)},
                       {"sendingFailureTime", json_object_new_int64(health.sendingFailureTime)},
                       {"sendingFailure", JsonText(health.sendingFailure)},
                       {"sendingFailsSince", json_object_new_int64(health.sendingFailsSince)},
                       {"counts", counts}});
}

void PrintJson(const AgentFacts& facts, const std::vector<Problem>& problems) {
    json_object* attention = json_object_new_array();
    for (const Problem& problem : problems) json_object_array_add(attention, JsonText(problem.text));
    const bool isPlaceKnown = facts.hasPlace();
    const JsonPtr object(
        JsonObject({{"version", JsonText(std::string(programVersion))},
                    {"isRunning", IsActivityKnown(facts) ? json_object_new_boolean(facts.isRunning) : nullptr},
                    {"service", JsonText(facts.service)},
                    {"process", facts.process.empty() ? nullptr : JsonText(facts.process)},
                    {"directory", facts.binPath.empty() ? nullptr : JsonText(facts.binPath)},
                    {"key", facts.key.empty() ? nullptr : JsonText(facts.key)},
                    {"server", facts.server.empty() ? nullptr : JsonText(facts.server)},
                    {"agent", facts.health ? JsonHealth(*facts.health) : nullptr},
                    {"plan", isPlaceKnown ? JsonPlan(facts.plan) : nullptr},
                    {"records", isPlaceKnown ? JsonWaiting(facts.records) : nullptr},
                    {"zips", isPlaceKnown ? JsonWaiting(facts.zips) : nullptr},
                    {"freeBytes", facts.freeBytes ? json_object_new_uint64(*facts.freeBytes) : nullptr},
                    {"attention", attention}}),
        json_object_put);
    fmt::print("{}\n", TextOfJson(object.get()));
}

// --- for monitoring

/// What is not known is left out: a count of 0 would be a value.
std::string PerformanceData(const AgentFacts& facts, const Thresholds& limits) {
    if (!facts.hasPlace()) return "";
    const std::int64_t age =
        facts.zips.oldestTime == 0 ? 0 : std::max<std::int64_t>(facts.now - facts.zips.oldestTime, 0);
    std::string text;
    if (facts.zips.error == platform::error::success)
        text += fmt::format(" zips={};;;0 zip_bytes={}B;;;0 oldest_zip={}s;{};{};0", facts.zips.number,
                            facts.zips.bytes, age, limits.warningAge, limits.criticalAge);
    if (facts.records.error == platform::error::success) text += fmt::format(" records={};;;0", facts.records.number);
    if (facts.freeBytes)
        text += fmt::format(" free={}B;{}:;{}:;0", *facts.freeBytes, limits.warningFree, limits.criticalFree);
    for (const auto& [name, count] :
         facts.health ? facts.health->counts : std::vector<std::pair<std::string, std::uint64_t>>())
        text += fmt::format(" {}={}c;;;0", name, count);
    return text.empty() ? "" : " |" + text;
}

/// A text on one line, without the sign that begins performance data.
std::string PluginText(const std::string& text) {
    std::string line = commandline::InLine(utf8::replace_invalid(text));
    std::replace(line.begin(), line.end(), '|', '/');
    return line;
}

std::string FineText(const AgentFacts& facts) {
    std::string text = fmt::format("{} at {}, {}", facts.key, facts.server, WaitingText(facts.zips, "zip", facts.now));
    if (facts.health && facts.health->lastUploadTime != 0)
        text += fmt::format(", last upload {} ago", DurationText(facts.now - facts.health->lastUploadTime));
    if (facts.health && facts.health->sendingFailsSince != 0)
        text += fmt::format(", sending fails since {}", TimeWithAge(facts.health->sendingFailsSince, facts.now));
    return text;
}

PluginStatus PrintForMonitoring(const AgentFacts& facts, const std::vector<Problem>& problems,
                                const Thresholds& limits) {
    constexpr const char* names[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    const PluginStatus severity = problems.empty() ? PluginStatus::fine : problems.front().severity;
    std::string text = problems.empty() ? FineText(facts) : "";
    for (const Problem& problem : problems) text += (text.empty() ? "" : "; ") + problem.text;
    fmt::print("KVAGENT {} - {}{}\n", names[static_cast<std::size_t>(severity)], PluginText(text),
               PerformanceData(facts, limits));
    commandline::FlushOutput();
    return severity;
}

Thresholds ReadThresholds(const Given& given) {
    constexpr commandline::Range minutes{1, 525'600};  // a year
    constexpr commandline::Range megabytes{0, 1'000'000'000};
    constexpr std::array plugins{"--warning-age", "--critical-age", "--warning-free", "--critical-free"};
    for (const char* option : plugins) {
        if (Has(given, option) && !Has(given, "--plugin")) throw UsageError(fmt::format("{} needs --plugin", option));
    }
    const auto bytes = [&](const char* option, std::int64_t fallback) {
        return static_cast<std::uint64_t>(Number(given, option, fallback, megabytes)) * bytesInMegabyte;
    };
    const Thresholds limits{.warningAge = Number(given, "--warning-age", 30, minutes) * secondsInMinute,
                            .criticalAge = Number(given, "--critical-age", 360, minutes) * secondsInMinute,
                            .warningFree = bytes("--warning-free", 200),
                            .criticalFree = bytes("--critical-free", 20)};
    if (limits.warningAge > limits.criticalAge) throw UsageError("--warning-age is above --critical-age");
    if (limits.warningFree < limits.criticalFree) throw UsageError("--warning-free is below --critical-free");
    return limits;
}

void PrintUnknown(const std::string& reason) {
    const std::string line = fmt::format("KVAGENT UNKNOWN - {}\n", PluginText(reason));
    static_cast<void>(std::fputs(line.c_str(), std::ferror(stdout) != 0 ? stderr : stdout));
}

/// Monitoring takes the exit codes of a failure for a state of the agent, so that every failure here is "unknown".
[[noreturn]] void RunAsPlugin(const Given& given) {
    PluginStatus severity = PluginStatus::unknown;
    try {
        if (Has(given, "--json")) throw UsageError("--json and --plugin do not go together");
        const Thresholds limits = ReadThresholds(given);
        const AgentFacts facts = GatherFacts();
        severity = PrintForMonitoring(facts, JudgeFacts(facts, limits), limits);
    } catch (const std::exception& error) {
        severity = PluginStatus::unknown;
        PrintUnknown(error.what());
    }
    throw commandline::ExitWith{static_cast<int>(severity)};
}

/// Of a wrong command line monitoring would take the exit code for "critical".
void RefuseAsPlugin(const std::vector<std::string>& words, const std::string& reason) {
    if (std::find(words.begin(), words.end(), "--plugin") == words.end()) return;
    PrintUnknown(reason + " (see kvagentctl status --help)");
    throw commandline::ExitWith{static_cast<int>(PluginStatus::unknown)};
}

void RunStatus(const Given& given) {
    constexpr int failed = 1;
    constexpr int notInstalled = 3;
    if (Has(given, "--plugin")) RunAsPlugin(given);
    const Thresholds limits = ReadThresholds(given);
    const AgentFacts facts = GatherFacts();
    const std::vector<Problem> problems = JudgeFacts(facts, limits);
    if (Has(given, "--json"))
        PrintJson(facts, problems);
    else
        PrintForPeople(facts, problems);
    if (facts.binPath.empty() && (facts.registryFailure.empty() || !EmptyRegistryText().empty()))
        throw commandline::ExitWith{notInstalled};
    if (!facts.registryFailure.empty()) throw commandline::ExitWith{failed};
}

}  // namespace

const commandline::Command& StatusVerb() {
    static const commandline::Command verb{
        .name = "status",
        .text =
            "Tells how the agent is. Version, key, server, last upload and registration, plan, what waits, whether "
            "it collects, the last failure, disk room, and what needs attention. It runs as any user and names "
            "what that user may not read. Exit code 0 also when something needs attention, which --plugin tells by "
            "its exit code; 1 when the settings cannot be read, 3 when no agent is installed.",
        .words = {},
        .options = options,
        .run = RunStatus,
        .refused = RefuseAsPlugin,
    };
    return verb;
}

}  // namespace kv::control
