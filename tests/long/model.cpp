#include "tests/long/model.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace kv::model {

std::size_t RecordsBegun(const State& state) {
    return static_cast<std::size_t>(std::count_if(state.records.begin(), state.records.end(),
                                                  [](auto& record) { return record.phase != RecordPhase::none; }));
}

namespace {

static_assert(std::has_unique_object_representations_v<State>);

struct Hash {
    std::size_t operator()(const State& state) const {
        return std::hash<std::string_view>()({reinterpret_cast<const char*>(&state), sizeof state});
    }
};

bool Has(Byte set, std::size_t index) { return (set >> index & 1) != 0; }
Byte Only(std::size_t index) { return static_cast<Byte>(1U << index); }
void Remove(Byte& set, std::size_t index) { set = static_cast<Byte>(set & ~Only(index)); }
void CountUp(Byte& number) { number = static_cast<Byte>(std::min(number + 1, 2)); }

std::size_t ZipsBegun(const State& state) {
    return static_cast<std::size_t>(
        std::count_if(state.zips.begin(), state.zips.end(), [](auto& zip) { return zip.phase != ZipPhase::none; }));
}

Byte RecordsInData(const State& state) {
    Byte set = 0;
    for (std::size_t i = 0; i < mostRecords; ++i)
        if (state.records[i].isInData != 0) set = static_cast<Byte>(set | Only(i));
    return set;
}

/// The zips in a phase.
Byte Zips(const State& state, ZipPhase phase) {
    Byte set = 0;
    for (std::size_t i = 0; i < mostZips; ++i)
        if (state.zips[i].phase == phase) set = static_cast<Byte>(set | Only(i));
    return set;
}

std::size_t First(Byte set) { return static_cast<std::size_t>(__builtin_ctz(set)); }

/// In the order of their numbers, as a search of the directory gives them.
template <class Items>
std::size_t FirstByNumber(const Items& items, Byte set) {
    std::size_t first = First(set);
    for (std::size_t i = first; i < items.size(); ++i)
        if (Has(set, i) && items[i].number < items[first].number) first = i;
    return first;
}

template <class Items>
bool IsNumberTaken(const Items& items, Byte set, Byte number) {
    for (std::size_t i = 0; i < items.size(); ++i)
        if (Has(set, i) && items[i].number == number) return true;
    return false;
}

template <class Items>
Byte HighestNumber(const Items& items, Byte set) {
    Byte highest = 0;
    for (std::size_t i = 0; i < items.size(); ++i)
        if (Has(set, i)) highest = std::max(highest, items[i].number);
    return highest;
}

// ---- the start

bool IsRecordWritten(const Record& record) { return record.phase == RecordPhase::written; }

void LoadPlanAndGoUp(State& state) {
    state.loadedPlan = state.plan;
    state.starter = Starter::up;
}

void RaiseZipNumber(State& state) {
    const Byte highest = HighestNumber(state.zips, Zips(state, ZipPhase::closed));
    if (highest <= state.zipNumber) return LoadPlanAndGoUp(state);
    state.zipNumber = highest;
    state.starter = Starter::storingZipNumber;
}

void RaiseNumbers(State& state) {
    state.recordNumber = state.storedRecordNumber;
    state.zipNumber = state.storedZipNumber;
    const Byte highest = HighestNumber(state.records, RecordsInData(state));
    if (highest <= state.recordNumber) return RaiseZipNumber(state);
    state.recordNumber = highest;
    state.starter = Starter::storingRecordNumber;
}

void BeginStart(State& state) {
    const bool isLeft = std::any_of(state.records.begin(), state.records.end(), IsRecordWritten);
    if (!isLeft) return RaiseNumbers(state);
    state.starter = Starter::deletingUnfinished;
}

void StepStarter(State& state) {
    switch (state.starter) {
        case Starter::down:
            return BeginStart(state);
        case Starter::deletingUnfinished:
            std::find_if(state.records.begin(), state.records.end(), IsRecordWritten)->phase = RecordPhase::gone;
            return BeginStart(state);
        case Starter::storingRecordNumber:
            state.storedRecordNumber = state.recordNumber;
            return RaiseZipNumber(state);
        case Starter::storingZipNumber:
            state.storedZipNumber = state.zipNumber;
            return LoadPlanAndGoUp(state);
        case Starter::up:
            return;
    }
}

// ---- the writer

bool IsBeingWritten(const Record& record) {
    return record.phase == RecordPhase::numbered || record.phase == RecordPhase::written;
}

void BeginRecord(State& state) {
    Record& record = state.records[RecordsBegun(state)];
    do ++state.recordNumber;
    while (IsNumberTaken(state.records, RecordsInData(state), state.recordNumber));
    record.number = state.recordNumber;
    record.phase = RecordPhase::numbered;
}

void StepWriter(State& state) {
    const auto record = std::find_if(state.records.begin(), state.records.end(), IsBeingWritten);
    if (record == state.records.end()) return BeginRecord(state);
    if (record->phase == RecordPhase::numbered) {
        record->phase = RecordPhase::written;
        return;
    }
    for (Record& other : state.records)
        if (other.number == record->number) other.isInData = 0;  // the rename replaces a file of that name
    record->phase = RecordPhase::complete;
    record->isInData = 1;
}

// ---- the uploader

void EndPass(State& state) { state.uploader = Uploader::asleep; }

void SendNext(State& state) { state.queue == 0 ? EndPass(state) : void(state.uploader = Uploader::sending); }

void BeginSending(State& state) {
    state.batch = 0;
    state.numberToStore = 0;
    state.queue = Zips(state, ZipPhase::closed);
    SendNext(state);
}

void BeginPass(State& state) {
    state.isAwake = 1;
    state.batch = RecordsInData(state);
    if (state.batch == 0) return BeginSending(state);
    do ++state.zipNumber;
    while (IsNumberTaken(state.zips, Zips(state, ZipPhase::closed), state.zipNumber));
    state.numberToStore = state.recordNumber;
    state.uploader = Uploader::storingRecordNumber;
}

void WakeUp(State& state, Fault fault) {
    if (state.isAwake != 0 || Zips(state, ZipPhase::unfinished) == 0 || fault == Fault::unfinishedZipStays)
        return BeginPass(state);
    state.uploader = Uploader::deletingUnfinished;
}

Zip& ZipBeingMade(State& state) { return state.zips[ZipsBegun(state) - 1]; }

void DeleteRecord(State& state, Uploader next) {
    const std::size_t first = FirstByNumber(state.records, state.batch);
    state.records[first].isInData = 0;
    Remove(state.batch, first);
    if (state.batch != 0) return;
    state.uploader = next;
    if (next == Uploader::sending) BeginSending(state);
}

/// What a zip holds counts once it has arrived.
void Arrive(State& state, const Zip& zip) {
    for (std::size_t i = 0; i < mostRecords; ++i)
        if (Has(zip.records, i)) CountUp(state.records[i].atServer);
}

void Send(State& state, Answer answer, Fault fault) {
    const std::size_t first = FirstByNumber(state.zips, state.queue);
    if (answer == Answer::accepts || answer == Answer::takesWithoutAnswer) Arrive(state, state.zips[first]);
    if (answer == Answer::accepts || fault == Fault::zipDeletedWithoutAnswer) {
        state.uploader = Uploader::deletingZip;
        return;
    }
    Remove(state.queue, first);
    SendNext(state);
}

void DeleteZip(State& state) {
    const std::size_t first = FirstByNumber(state.zips, state.queue);
    state.zips[first].phase = ZipPhase::gone;
    Remove(state.queue, first);
    SendNext(state);
}

void StepUploader(State& state, Answer answer, Fault fault) {
    const bool deletesEarly = fault == Fault::recordsDeletedBeforeZipIsNamed;
    switch (state.uploader) {
        case Uploader::asleep:
            return WakeUp(state, fault);
        case Uploader::deletingUnfinished:
            state.zips[First(Zips(state, ZipPhase::unfinished))].phase = ZipPhase::gone;
            return WakeUp(state, fault);
        case Uploader::storingRecordNumber:
            if (fault != Fault::recordNumberNotStored) state.storedRecordNumber = state.numberToStore;
            state.uploader = Uploader::storingZipNumber;
            return;
        case Uploader::storingZipNumber:
            if (fault != Fault::zipNumberNotStored) state.storedZipNumber = state.zipNumber;
            state.uploader = Uploader::making;
            return;
        case Uploader::making:
            state.zips[ZipsBegun(state)] = {ZipPhase::unfinished, state.zipNumber, state.batch};
            state.uploader = deletesEarly ? Uploader::deletingRecords : Uploader::naming;
            return;
        case Uploader::naming:
            ZipBeingMade(state).phase = ZipPhase::closed;
            state.uploader = Uploader::deletingRecords;
            if (deletesEarly) BeginSending(state);
            return;
        case Uploader::deletingRecords:
            return DeleteRecord(state, deletesEarly ? Uploader::naming : Uploader::sending);
        case Uploader::sending:
            return Send(state, answer, fault);
        case Uploader::deletingZip:
            return DeleteZip(state);
    }
}

// ---- the planner

/// What is done with a plan in the download directory, whichever request brought it.
void JudgeDownload(State& state) {
    state.planner = state.download == noPlan     ? Planner::idle
                    : state.download == halfPlan ? Planner::settingAside
                                                 : Planner::copying;
}

void StepPlanner(State& state, Answer answer, Fault fault) {
    switch (state.planner) {
        case Planner::idle:
            ++state.plansServed;
            if (answer != Answer::accepts) return JudgeDownload(state);
            state.planner = state.download == noPlan ? Planner::making : Planner::deletingOld;
            return;
        case Planner::deletingOld:
            state.download = noPlan;
            state.planner = Planner::making;
            return;
        case Planner::making:
            state.download = halfPlan;
            if (fault == Fault::planWrittenInPlace) state.plan = halfPlan;
            state.planner = Planner::writing;
            return;
        case Planner::writing:
            state.download = state.plansServed;
            return JudgeDownload(state);
        case Planner::copying:
            state.copy = state.plan;
            state.planner = Planner::backingUp;
            return;
        case Planner::backingUp:
            state.backup = state.copy;
            state.copy = noPlan;
            state.planner = Planner::installing;
            return;
        case Planner::installing:
            state.plan = state.loadedPlan = state.download;
            [[fallthrough]];
        case Planner::settingAside:
            state.download = noPlan;
            state.planner = Planner::idle;
    }
}

/// Memory is gone; files, the registry and the server stay.
void Crash(State& state) {
    for (Record& record : state.records)
        if (record.phase == RecordPhase::numbered) record.phase = RecordPhase::gone;
    state.starter = Starter::down;
    state.uploader = Uploader::asleep;
    state.planner = Planner::idle;
    state.isAwake = state.batch = state.numberToStore = state.queue = 0;
    state.recordNumber = state.zipNumber = 1;
    state.loadedPlan = noPlan;
    ++state.crashes;
}

struct Visit {
    State state;
    std::uint32_t before = 0;  // from where it was reached first, and how
    Step step = {};
};

/// The states in the order in which they are reached: a shortest way leads to each.
struct Graph {
    std::vector<Visit> visits{{}};
    std::unordered_map<State, std::uint32_t, Hash> known{{State(), 0}};

    Trace TraceTo(std::uint32_t at) const {
        Trace trace;
        for (; at != 0; at = visits[at].before) trace.push_back(visits[at].step);
        std::reverse(trace.begin(), trace.end());
        return trace;
    }
};

/// Ends at the first state that breaks a promise, and tells of it.
Graph Reach(const Limits& limits, std::string& failure) {
    Graph graph;
    for (std::uint32_t at = 0; at < graph.visits.size(); ++at) {
        const State state = graph.visits[at].state;
        const char* broken = BrokenPromise(state);
        if (!broken && !EmptiesItself(state, limits)) broken = "the queue is never empty again";
        if (broken) {
            failure = fmt::format("{}\n{}\n{}", broken, Describe(graph.TraceTo(at)), Describe(state));
            return graph;
        }
        for (const Step step : NextSteps(state, limits)) {
            const State next = After(state, step, limits);
            if (graph.known.try_emplace(next, static_cast<std::uint32_t>(graph.visits.size())).second)
                graph.visits.push_back({next, at, step});
        }
    }
    return graph;
}

}  // namespace

std::vector<Step> NextSteps(const State& state, const Limits& limits) {
    std::vector<Step> steps;
    const auto add = [&](Actor actor, Answer most = Answer::accepts) {
        for (Byte answer = 0; answer <= static_cast<Byte>(most); ++answer)
            if (actor != Actor::planner || answer == 0 || answer == static_cast<Byte>(Answer::away))
                steps.push_back({actor, static_cast<Answer>(answer)});
    };
    if (state.starter != Starter::up) {
        add(Actor::starter);
    } else {
        const bool isWriting = std::any_of(state.records.begin(), state.records.end(), IsBeingWritten);
        if (isWriting || RecordsBegun(state) < limits.records) add(Actor::writer);
        const bool hasZips = ZipsBegun(state) < limits.zips || RecordsInData(state) == 0;
        if (state.uploader != Uploader::asleep || hasZips)
            add(Actor::uploader, state.uploader == Uploader::sending ? Answer::away : Answer::accepts);
        if (state.planner != Planner::idle || state.plansServed < limits.plans)
            add(Actor::planner, state.planner == Planner::idle ? Answer::away : Answer::accepts);
    }
    if (state.starter != Starter::down && state.crashes < limits.crashes) add(Actor::crash);
    return steps;
}

State After(const State& state, Step step, const Limits& limits) {
    State next = state;
    switch (step.actor) {
        case Actor::starter:
            StepStarter(next);
            break;
        case Actor::writer:
            StepWriter(next);
            break;
        case Actor::uploader:
            StepUploader(next, step.answer, limits.fault);
            break;
        case Actor::planner:
            StepPlanner(next, step.answer, limits.fault);
            break;
        case Actor::crash:
            Crash(next);
    }
    return next;
}

const char* BrokenPromise(const State& state) {
    Byte zipped = 0;
    for (const Zip& zip : state.zips)
        if (zip.phase == ZipPhase::closed) zipped = static_cast<Byte>(zipped | zip.records);
    for (std::size_t i = 0; i < mostRecords; ++i) {
        const Record& record = state.records[i];
        if (record.phase != RecordPhase::complete) continue;
        if (record.isInData == 0 && !Has(zipped, i) && record.atServer == 0) return "a complete record is lost";
        for (std::size_t other = 0; other < i; ++other)
            if (state.records[other].phase == RecordPhase::complete && state.records[other].number == record.number)
                return "two complete records have one number";
    }
    for (const Zip& zip : state.zips)
        for (const Zip& other : state.zips)
            if (&other != &zip && zip.phase != ZipPhase::none && other.phase != ZipPhase::none &&
                zip.number == other.number)
                return "two zips have one number";
    const auto isWhole = [](Byte version) { return version != noPlan && version != halfPlan; };
    if (!isWhole(state.plan) || state.backup == halfPlan) return "a plan is neither the old one nor the new one";
    if (state.starter == Starter::up && state.loadedPlan != state.plan) return "the plan in use is not the one on disk";
    if (isWhole(state.backup) && state.backup > state.plan) return "the backup is newer than the plan";
    if (isWhole(state.download) && state.download <= state.plan && state.planner != Planner::deletingOld)
        return "a plan waits that is older than the one in use";
    return nullptr;
}

bool EmptiesItself(State state, const Limits& limits) {
    const Limits drained{.records = 0, .zips = mostZips, .plans = 0, .crashes = 0, .fault = limits.fault};
    for (int step = 0; step < 200; ++step) {
        const bool rests = state.starter == Starter::up && state.uploader == Uploader::asleep && state.isAwake != 0;
        const bool isWriting = std::any_of(state.records.begin(), state.records.end(), IsBeingWritten);
        const Byte files = RecordsInData(state) | Zips(state, ZipPhase::closed) | Zips(state, ZipPhase::unfinished);
        if (rests && !isWriting && files == 0)
            return std::all_of(state.records.begin(), state.records.end(), [](const Record& record) {
                return record.phase != RecordPhase::complete || record.atServer > 0;
            });
        Actor actor = Actor::uploader;
        if (state.starter != Starter::up) actor = Actor::starter;
        if (isWriting && state.starter == Starter::up) actor = Actor::writer;
        state = After(state, {actor, Answer::accepts}, drained);
    }
    return false;
}

std::string Describe(const Limits& limits) {
    return fmt::format("{} records, {} zips, {} plans, {} crashes", limits.records, limits.zips, limits.plans,
                       limits.crashes);
}

std::string Describe(const State& state) {
    std::string text;
    for (const Record& record : state.records) {
        if (record.phase == RecordPhase::none) continue;
        constexpr const char* phases[] = {"", "numbered", "written", "complete", "gone"};
        text += fmt::format("record {} {}{}, at server {}; ", record.number, phases[static_cast<int>(record.phase)],
                            record.isInData != 0 ? ", in data" : "", record.atServer);
    }
    for (const Zip& zip : state.zips) {
        if (zip.phase == ZipPhase::none) continue;
        constexpr const char* phases[] = {"", "unfinished", "closed", "gone"};
        text += fmt::format("zip {} {} {:b}; ", zip.number, phases[static_cast<int>(zip.phase)], zip.records);
    }
    return text +
           fmt::format("numbers {} {}, stored {} {}; plan {} loaded {} backup {} copy {} download {}; at {} {} {}",
                       state.recordNumber, state.zipNumber, state.storedRecordNumber, state.storedZipNumber, state.plan,
                       state.loadedPlan, state.backup, state.copy, state.download, static_cast<int>(state.starter),
                       static_cast<int>(state.uploader), static_cast<int>(state.planner));
}

std::string Describe(const Trace& trace) {
    constexpr const char* actors[] = {"start", "write", "upload", "plan", "CRASH"};
    constexpr const char* answers[] = {"", ":lost", ":refused", ":away"};
    std::string text;
    for (const Step& step : trace)
        text.append(actors[static_cast<int>(step.actor)]).append(answers[static_cast<int>(step.answer)]) += ' ';
    return text;
}

Exploration Explore(const Limits& limits) {
    Exploration result;
    const Graph graph = Reach(limits, result.failure);
    result.states = graph.visits.size();
    for (const Visit& visit : graph.visits) result.steps += NextSteps(visit.state, limits).size();
    return result;
}

std::vector<Trace> RunsThroughAll(const Limits& limits) {
    std::string failure;
    const Graph graph = Reach(limits, failure);
    std::vector<std::vector<Step>> left;  // the steps of each state that no run takes yet
    for (const Visit& visit : graph.visits) left.push_back(NextSteps(visit.state, limits));
    const auto take = [&](std::uint32_t& at, Step step) {
        std::erase(left[at], step);
        at = graph.known.at(After(graph.visits[at].state, step, limits));
    };
    std::vector<Trace> runs;
    for (std::uint32_t last = static_cast<std::uint32_t>(left.size()); last-- > 0;) {
        while (!left[last].empty()) {
            Trace run = graph.TraceTo(last);
            std::uint32_t at = 0;
            for (const Step step : run) take(at, step);
            while (!left[at].empty()) {
                run.push_back(left[at].front());
                take(at, run.back());
            }
            runs.push_back(std::move(run));
        }
    }
    return runs;
}

}  // namespace kv::model
