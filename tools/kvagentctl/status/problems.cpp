#include "tools/kvagentctl/status/problems.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/status/status_text.h"

namespace kv::control {

namespace {

namespace error = platform::error;

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
        Add(PluginStatus::critical, facts_.binPath + " does not exist, so nothing is collected; " +
                                        (facts_.isRunning ? "stop the agent and start it again, then it makes it"
                                                          : "the agent makes it when it is started"));
    if (facts_.isRunning && !health.missingPlan.empty()) Add(PluginStatus::warning, health.missingPlan);
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
    const std::int64_t recordAge = facts_.records.oldestTime == 0 ? 0 : facts_.now - facts_.records.oldestTime;
    AddIf(recordAge >= thresholds_.warningAge + facts_.packingPeriod, PluginStatus::warning,
          fmt::format("the oldest of {} has waited for {} to be packed: the agent's log says why",
                      Counted(facts_.records.number, "record"), DurationText(recordAge)));
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
    if (plan.runnable < plan.workflows)
        Add(PluginStatus::warning,
            fmt::format("{} of {} run: kvagentctl check says why", plan.runnable, Counted(plan.workflows, "workflow")));
    if (plan.refusedTime > plan.time)
        Add(PluginStatus::warning, fmt::format("a newer plan was refused, see the log: {}", plan.refusedFile));
}

}  // namespace

std::vector<Problem> JudgeFacts(const AgentFacts& facts, const Thresholds& thresholds) {
    return Judge(facts, thresholds).Problems();
}

}  // namespace kv::control
