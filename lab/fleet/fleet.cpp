#include "lab/fleet/fleet.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <queue>
#include <vector>

#include "lab/fleet/fleet_agent.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// How long the last answers are waited for: what the server accepted counts. Who interrupts does not want to wait
/// long.
constexpr Seconds lastPatience{60};
constexpr Seconds interruptedPatience{5};

enum class Action { enrol, fetchRequests, upload };

struct Due {
    Clock::time_point time;
    std::size_t agent;
    Action action;

    bool operator>(const Due& other) const { return time > other.time; }
};

class Fleet {
  public:
    Fleet(const FleetOptions& options, const std::function<bool()>& interrupted)
        : options_(options), interrupted_(interrupted), transfers_(options.server, options.caFile) {
        for (int number = 1; number <= options.agents; ++number)
            agents_.emplace_back(options.prefix + std::to_string(number), number);
    }

    FleetReport Run(const std::function<void(const FleetReport&)>& progress);

  private:
    void Schedule();
    void StartWhatIsDue();
    void WaitForAnswers();
    void Enrol(std::size_t index);
    void FetchRequests(std::size_t index);
    void Upload(std::size_t index);
    void SendNext(FleetAgent& agent);
    void ReportStops();
    std::optional<std::int64_t> ZipsHeld();
    Clock::time_point After(double seconds) const {
        return start_ + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    }

    const FleetOptions& options_;
    const std::function<bool()>& interrupted_;
    Transfers transfers_;
    std::vector<FleetAgent> agents_;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> due_;
    Clock::time_point start_;
    bool stopping_ = false;  // nothing new is started
    FleetReport report_;
};

/// Each agent has its own phase within each rhythm, so that the server is busy evenly.
void Fleet::Schedule() {
    const double poll = requestSeconds / options_.rate;
    const double pass = uploadSeconds / options_.rate;
    for (std::size_t agent = 0; agent < agents_.size(); ++agent) {
        const double share = static_cast<double>(agent) / static_cast<double>(agents_.size());
        due_.push({After(share * std::min(poll, pass)), agent, Action::enrol});
        due_.push({After(poll + share * poll), agent, Action::fetchRequests});
        due_.push({After(std::min(poll, pass) + share * pass), agent, Action::upload});
    }
}

void Fleet::Enrol(std::size_t index) {
    transfers_.Start({agents_[index].RegistrationPath(), nullptr}, [this, index](const TransferOutcome& outcome) {
        TransferOutcome judged = outcome;
        if (judged.failure.empty() && judged.agentKey.empty())
            judged.failure = "answered without a key, so it is not a central server";
        report_.registrations.Take(judged);
        agents_[index].isRegistered = judged.failure.empty();
        if (!outcome.agentKey.empty()) agents_[index].TakeKey(outcome.agentKey);
    });
}

void Fleet::FetchRequests(std::size_t index) {
    transfers_.Start({"/servlets/DataAgentHandlerServlet?agentKey=" + agents_[index].key(), nullptr},
                     [this](const TransferOutcome& outcome) { report_.requestLists.Take(outcome); });
}

void Fleet::Upload(std::size_t index) {
    FleetAgent& agent = agents_[index];
    if (agent.waiting.size() < maxWaitingZips) agent.Pack(options_.records, std::time(nullptr));
    if (agent.isBusy) return;
    agent.tried = 0;
    SendNext(agent);
}

/// Sends the agent's zips one after the other, also behind one that failed, as an agent does in each pass.
void Fleet::SendNext(FleetAgent& agent) {
    agent.isBusy = agent.tried < agent.waiting.size();
    if (!agent.isBusy) return;
    const WaitingZip& zip = agent.waiting[agent.tried];
    transfers_.Start({"/servlets/FileCollector?AGENTKEY=" + agent.key() + "&FILENAME=" + zip.name, &zip.bytes},
                     [this, &agent](const TransferOutcome& outcome) {
                         report_.uploads.Take(outcome);
                         if (outcome.failure.empty()) {
                             ++report_.acceptedZips;
                             agent.waiting.erase(agent.waiting.begin() + static_cast<std::ptrdiff_t>(agent.tried));
                         } else {
                             ++agent.tried;
                         }
                         if (!stopping_) SendNext(agent);
                     });
}

void Fleet::StartWhatIsDue() {
    // A fleet that cannot keep up lets its transfers go on all the same.
    constexpr int startedTogether = 200;
    for (int started = 0; started < startedTogether && due_.top().time <= Clock::now(); ++started) {
        Due next = due_.top();
        due_.pop();
        if (next.action == Action::enrol) {
            Enrol(next.agent);
            continue;
        }
        const bool isUpload = next.action == Action::upload;
        isUpload ? Upload(next.agent) : FetchRequests(next.agent);
        next.time += std::chrono::duration_cast<Clock::duration>(
            Seconds((isUpload ? uploadSeconds : requestSeconds) / options_.rate));
        due_.push(next);
    }
}

/// What has not answered in time is given up: counted later, it would seem lost to who compares it with what is held.
void Fleet::WaitForAnswers() {
    const auto begun = Clock::now();
    while (transfers_.running() > 0 && Clock::now() - begun < (interrupted_() ? interruptedPatience : lastPatience))
        transfers_.Wait(std::chrono::milliseconds(20));
    transfers_.Abandon();
}

/// Each agent that the server knows says that it stops, as one does that is stopped.
void Fleet::ReportStops() {
    constexpr std::size_t startedTogether = 200;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(lastPatience);
    for (const FleetAgent& agent : agents_) {
        while (transfers_.running() >= startedTogether && Clock::now() < end)
            transfers_.Wait(std::chrono::milliseconds(20));
        if (Clock::now() >= end) break;
        if (agent.isRegistered)
            transfers_.Start({agent.StopPath(), nullptr},
                             [this](const TransferOutcome& outcome) { report_.stops.Take(outcome); });
    }
    WaitForAnswers();
}

/// What the lab says that it holds; other servers do not tell.
std::optional<std::int64_t> Fleet::ZipsHeld() {
    std::optional<std::int64_t> held;
    transfers_.Start({"/totals.json", nullptr}, [&held](const TransferOutcome& outcome) {
        const ParsedJson document = ParseJson(outcome.failure.empty() ? outcome.text : "");
        json_object* totals = nullptr;
        json_object* zips = nullptr;
        if (json_object_object_get_ex(document.value.get(), "totals", &totals) &&
            json_object_is_type(totals, json_type_array) &&
            json_object_object_get_ex(json_object_array_get_idx(totals, 0), "uploads", &zips))
            held = json_object_get_int64(zips);
    });
    WaitForAnswers();
    return held;
}

FleetReport Fleet::Run(const std::function<void(const FleetReport&)>& progress) {
    const std::optional<std::int64_t> before = ZipsHeld();
    start_ = Clock::now();
    Schedule();
    const Clock::time_point end = After(options_.seconds);
    for (Clock::time_point shown = start_; Clock::now() < end && !interrupted_();) {
        StartWhatIsDue();
        const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(due_.top().time - Clock::now());
        transfers_.Wait(std::clamp(pause, std::chrono::milliseconds(0), std::chrono::milliseconds(100)));
        report_.seconds = Seconds(Clock::now() - start_).count();
        if (Clock::now() - shown < std::chrono::seconds(1)) continue;
        shown = Clock::now();
        progress(report_);
    }
    stopping_ = true;
    WaitForAnswers();
    report_.seconds = Seconds(Clock::now() - start_).count();
    if (!interrupted_()) ReportStops();
    for (const FleetAgent& agent : agents_) report_.waitingZips += static_cast<std::int64_t>(agent.waiting.size());
    const std::optional<std::int64_t> after = ZipsHeld();
    if (before && after) report_.zipsHeld = *after - *before;
    return report_;
}

}  // namespace

std::int64_t FleetReport::lost() const { return zipsHeld ? std::max<std::int64_t>(acceptedZips - *zipsHeld, 0) : 0; }

FleetReport RunFleet(const FleetOptions& options, const std::function<void(const FleetReport&)>& progress,
                     const std::function<bool()>& interrupted) {
    return Fleet(options, interrupted).Run(progress);
}

}  // namespace kv::lab
