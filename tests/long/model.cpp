#include "tests/long/model.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <set>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace kv::model {

namespace {

static_assert(std::has_unique_object_representations_v<State>);

struct Hash {
    std::size_t operator()(const State& state) const {
        return std::hash<std::string_view>()({reinterpret_cast<const char*>(&state), sizeof state});
    }
};

// Sets of records and of zips have a bit for each.

bool Has(Byte set, std::size_t index) { return (set >> index & 1) != 0; }
void Remove(Byte& set, std::size_t index) { set = static_cast<Byte>(set & ~(1U << index)); }
std::size_t Count(Byte set) { return static_cast<std::size_t>(std::popcount(set)); }

template <class Items, class Member, class Value>
Byte Where(const Items& items, Member member, Value value) {
    unsigned set = 0;
    for (std::size_t i = 0; i < items.size(); ++i) set |= (items[i].*member == value ? 1U : 0U) << i;
    return static_cast<Byte>(set);
}

Byte Records(const State& state, RecordPhase phase) { return Where(state.records, &Record::phase, phase); }
Byte Zips(const State& state, ZipPhase phase) { return Where(state.zips, &Zip::phase, phase); }
Byte InData(const State& state) { return Where(state.records, &Record::isInData, 1); }
Byte BeingWritten(const State& state) {
    return Records(state, RecordPhase::numbered) | Records(state, RecordPhase::written);
}
std::size_t ZipsBegun(const State& state) { return mostZips - Count(Zips(state, ZipPhase::none)); }

/// Records and zips are made in the order of their numbers, in which a search of their directory finds them, too.
std::size_t First(Byte set) { return static_cast<std::size_t>(std::countr_zero(set)); }

template <class Items>
Byte HighestNumber(const Items& items, Byte set) {
    Byte highest = 0;
    for (std::size_t i = 0; i < items.size(); ++i)
        if (Has(set, i)) highest = std::max(highest, items[i].number);
    return highest;
}

/// The next number that none of a set has.
template <class Items>
void TakeNumber(Byte& number, const Items& items, Byte set) {
    do ++number;
    while ((set & Where(items, &Items::value_type::number, number)) != 0);
}

// ---- the start

void StepStarter(State& state, Fault fault) {
    const Byte abandoned = Records(state, RecordPhase::abandoned);
    if (state.starter == Starter::deletingUnfinished) state.records[First(abandoned)].phase = RecordPhase::gone;
    if (state.starter == Starter::storingRecordNumber) state.storedRecordNumber = state.recordNumber;
    if (state.starter == Starter::storingZipNumber) state.storedZipNumber = state.zipNumber;
    state.recordNumber = std::max(state.storedRecordNumber, HighestNumber(state.records, InData(state)));
    state.zipNumber = std::max(state.storedZipNumber, HighestNumber(state.zips, Zips(state, ZipPhase::closed)));
    const bool isLeft = Records(state, RecordPhase::abandoned) != 0 && fault != Fault::unfinishedRecordStays;
    state.starter = isLeft                                          ? Starter::deletingUnfinished
                    : state.recordNumber > state.storedRecordNumber ? Starter::storingRecordNumber
                    : state.zipNumber > state.storedZipNumber       ? Starter::storingZipNumber
                                                                    : Starter::up;
    if (state.starter == Starter::up) state.loadedPlan = state.plan;
}

// ---- the writer

void StepWriter(State& state) {
    const Byte begun = BeingWritten(state);
    Record& record = state.records[begun != 0 ? First(begun) : RecordsBegun(state)];
    if (record.phase == RecordPhase::none) {
        TakeNumber(state.recordNumber, state.records, InData(state));
        record = {.phase = RecordPhase::numbered, .number = state.recordNumber};
    } else if (record.phase == RecordPhase::numbered) {
        record.phase = RecordPhase::written;
    } else {
        for (Record& other : state.records)
            if (other.number == record.number) other.isInData = 0;  // the rename replaces a file of that name
        record.phase = RecordPhase::complete;
        record.isInData = 1;
    }
}

// ---- the uploader

void SendNext(State& state) { state.uploader = state.queue == 0 ? Uploader::asleep : Uploader::sending; }

void BeginSending(State& state) {
    state.numberToStore = 0;
    state.queue = Zips(state, ZipPhase::closed);
    SendNext(state);
}

void BeginPass(State& state) {
    state.isAwake = 1;
    state.batch = InData(state);
    if (state.batch == 0) return BeginSending(state);
    TakeNumber(state.zipNumber, state.zips, Zips(state, ZipPhase::closed));
    state.numberToStore = state.recordNumber;
    state.uploader = Uploader::storingRecordNumber;
}

void WakeUp(State& state, Fault fault) {
    if (state.isAwake != 0 || Zips(state, ZipPhase::unfinished) == 0 || fault == Fault::unfinishedZipStays)
        return BeginPass(state);
    state.uploader = Uploader::deletingUnfinished;
}

void DeleteRecord(State& state) {
    const std::size_t first = First(state.batch);
    state.records[first].isInData = 0;
    Remove(state.batch, first);
    if (state.batch == 0) BeginSending(state);
}

void Arrive(State& state, const Zip& zip) {
    for (std::size_t i = 0; i < mostRecords; ++i)
        if (Has(zip.records, i))
            state.records[i].atServer = static_cast<Byte>(std::min(state.records[i].atServer + 1, 2));
}

void Send(State& state, Answer answer, Fault fault) {
    const std::size_t first = First(state.queue);
    if (answer == Answer::accepts || answer == Answer::takesWithoutAnswer) Arrive(state, state.zips[first]);
    if (answer == Answer::accepts || fault == Fault::zipDeletedWithoutAnswer) {
        state.uploader = Uploader::deletingZip;
        return;
    }
    Remove(state.queue, first);
    SendNext(state);
}

void StepUploader(State& state, Answer answer, Fault fault) {
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
            if (fault == Fault::recordDeletedBeforeZipIsNamed) state.records[First(state.batch)].isInData = 0;
            state.uploader = Uploader::naming;
            return;
        case Uploader::naming:
            state.zips[ZipsBegun(state) - 1].phase = ZipPhase::closed;
            state.uploader = Uploader::deletingRecords;
            return;
        case Uploader::deletingRecords:
            return DeleteRecord(state);
        case Uploader::sending:
            return Send(state, answer, fault);
        case Uploader::deletingZip:
            state.zips[First(state.queue)].phase = ZipPhase::gone;
            Remove(state.queue, First(state.queue));
            return SendNext(state);
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
            state.copy = fault == Fault::newPlanIsBackup ? state.download : state.plan;
            state.planner = Planner::backingUp;
            return;
        case Planner::backingUp:
            state.backup = state.copy;
            state.copy = noPlan;
            state.planner = Planner::installing;
            return;
        case Planner::installing:
            state.plan = state.download;
            if (fault != Fault::newPlanNotLoaded) state.loadedPlan = state.plan;
            [[fallthrough]];
        case Planner::settingAside:
            if (fault != Fault::usedPlanStays) state.download = noPlan;
            state.planner = Planner::idle;
    }
}

/// Memory is gone; files, the registry and the server stay.
void Crash(State& state) {
    for (Record& record : state.records) {
        if (record.phase == RecordPhase::numbered) record.phase = RecordPhase::gone;
        if (record.phase == RecordPhase::written) record.phase = RecordPhase::abandoned;
    }
    state.starter = Starter::down;
    state.uploader = Uploader::asleep;
    state.planner = Planner::idle;
    state.isAwake = state.batch = state.numberToStore = state.queue = 0;
    state.recordNumber = state.zipNumber = 1;
    state.loadedPlan = noPlan;
    ++state.crashes;
}

/// Why a state breaks the promise; null when it keeps it.
const char* BrokenPromise(const State& state) {
    const bool isUp = state.starter == Starter::up;
    const auto hasTwins = [](auto& items, Byte set) {
        std::set<Byte> numbers;
        for (std::size_t i = 0; i < items.size(); ++i)
            if (Has(set, i) && !numbers.insert(items[i].number).second) return true;
        return false;
    };
    const auto isWhole = [](Byte version) { return version != noPlan && version != halfPlan; };
    Byte zipped = 0;
    for (const Zip& zip : state.zips)
        if (zip.phase == ZipPhase::closed) zipped |= zip.records;
    const Byte complete = Records(state, RecordPhase::complete);
    const Byte notAtServer = Where(state.records, &Record::atServer, 0);
    if ((complete & notAtServer & ~(InData(state) | zipped)) != 0) return "a complete record is lost";
    if (isUp && Records(state, RecordPhase::abandoned) != 0) return "half a record of an earlier run stays";
    if (hasTwins(state.records, complete)) return "two complete records have one number";
    if (hasTwins(state.zips, static_cast<Byte>(~Zips(state, ZipPhase::none)))) return "two zips have one number";
    if (!isWhole(state.plan) || state.backup == halfPlan) return "a plan is neither the old one nor the new one";
    if (isUp && state.loadedPlan != state.plan) return "the plan in use is not the one on disk";
    if (isWhole(state.backup) && state.backup > state.plan) return "the backup is newer than the plan";
    if (isWhole(state.download) && state.download <= state.plan && state.planner != Planner::deletingOld)
        return "a plan waits that is older than the one in use";
    return nullptr;
}

/// Why a server that accepts everything, and no further crash, do not get every complete record and an empty queue.
const char* BrokenInTheEnd(State state, const Limits& limits) {
    for (int step = 0; step < 200; ++step) {
        const bool isUp = state.starter == Starter::up, isWriting = BeingWritten(state) != 0;
        const Byte zips = Zips(state, ZipPhase::closed) | Zips(state, ZipPhase::unfinished);
        if (isUp && !isWriting && state.isAwake != 0 && (InData(state) | zips) == 0) return BrokenPromise(state);
        state = After(state, {!isUp ? Actor::starter : isWriting ? Actor::writer : Actor::uploader}, limits);
    }
    return "the queue is never empty again";
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
    Exploration result;

    Trace TraceTo(std::uint32_t at) const {
        Trace trace;
        for (; at != 0; at = visits[at].before) trace.push_back(visits[at].step);
        std::reverse(trace.begin(), trace.end());
        return trace;
    }
};

/// Ends at the first state that breaks a promise, and tells of it.
Graph Reach(const Limits& limits) {
    Graph graph;
    for (std::uint32_t at = 0; at < graph.visits.size() && graph.result.failure.empty(); ++at) {
        const State state = graph.visits[at].state;
        const char* broken = BrokenPromise(state);
        if (!broken) broken = BrokenInTheEnd(state, limits);
        if (broken)
            graph.result.failure = fmt::format("{}\n{}\n{}", broken, Describe(graph.TraceTo(at)), Describe(state));
        for (const Step step : NextSteps(state, limits)) {
            const State next = After(state, step, limits);
            if (graph.known.try_emplace(next, static_cast<std::uint32_t>(graph.visits.size())).second)
                graph.visits.push_back({next, at, step});
            ++graph.result.steps;
        }
    }
    graph.result.states = graph.visits.size();
    return graph;
}

}  // namespace

std::size_t RecordsBegun(const State& state) { return mostRecords - Count(Records(state, RecordPhase::none)); }

std::vector<Step> NextSteps(const State& state, const Limits& limits) {
    std::vector<Step> steps;
    const auto add = [&steps](bool isPossible, Step step) {
        if (isPossible) steps.push_back(step);
    };
    const bool isUp = state.starter == Starter::up, isIdle = state.planner == Planner::idle;
    const bool mayGoOn = state.uploader != Uploader::asleep || ZipsBegun(state) < limits.zips || InData(state) == 0;
    add(!isUp, {Actor::starter});
    add(isUp && (BeingWritten(state) != 0 || RecordsBegun(state) < limits.records), {Actor::writer});
    for (const Answer answer : {Answer::accepts, Answer::takesWithoutAnswer, Answer::refuses, Answer::away}) {
        const bool isFirst = answer == Answer::accepts, isOfPlan = isFirst || answer == Answer::away;
        add(isUp && mayGoOn && (isFirst || state.uploader == Uploader::sending), {Actor::uploader, answer});
        add(isUp && (isIdle ? isOfPlan && state.plansServed < limits.plans : isFirst), {Actor::planner, answer});
    }
    add(state.starter != Starter::down && state.crashes < limits.crashes, {Actor::crash});
    return steps;
}

State After(const State& state, Step step, const Limits& limits) {
    State next = state;
    if (step.actor == Actor::starter) StepStarter(next, limits.fault);
    if (step.actor == Actor::writer) StepWriter(next);
    if (step.actor == Actor::uploader) StepUploader(next, step.answer, limits.fault);
    if (step.actor == Actor::planner) StepPlanner(next, step.answer, limits.fault);
    if (step.actor == Actor::crash) Crash(next);
    return next;
}

std::string Describe(const Limits& limits) {
    return fmt::format("{} records, {} zips, {} plans, {} crashes", limits.records, limits.zips, limits.plans,
                       limits.crashes);
}

std::string Describe(const State& state) {
    std::set<std::string> files;
    std::array<std::string, mostRecords> names;
    for (std::size_t i = 0; i < mostRecords; ++i) {
        const Record& record = state.records[i];
        names[i] = fmt::format("Agent_K7_{}.txt={}", record.number, i);
        if (record.phase == RecordPhase::written || record.phase == RecordPhase::abandoned)
            files.insert(fmt::format("Agent_K7_{}.tmp", record.number));
        if (record.isInData != 0) files.insert(names[i]);
        if (record.atServer != 0) files.insert(fmt::format("{} at server x{}", names[i], record.atServer));
    }
    for (const Zip& zip : state.zips) {
        if (zip.phase == ZipPhase::unfinished) files.insert(fmt::format("zip Agent_K7_{}.tmp", zip.number));
        if (zip.phase != ZipPhase::closed) continue;
        std::set<std::string> records;
        for (std::size_t i = 0; i < mostRecords; ++i)
            if (Has(zip.records, i)) records.insert(names[i]);
        files.insert(fmt::format("zip Agent_K7_{}.zip: {}", zip.number, fmt::join(records, " ")));
    }
    const bool isUp = state.starter == Starter::up;
    return fmt::format(describedState, fmt::join(files, ", "), isUp ? state.recordNumber : 0,
                       isUp ? state.zipNumber : 0, state.storedRecordNumber, state.storedZipNumber, state.plan,
                       state.backup, state.copy, state.download, state.loadedPlan);
}

std::string Describe(const Trace& trace) {
    constexpr const char* actors[] = {"start", "write", "upload", "plan", "CRASH"};
    constexpr const char* answers[] = {"", ":lost", ":refused", ":away"};
    std::string text;
    for (const Step& step : trace)
        text.append(actors[static_cast<int>(step.actor)]).append(answers[static_cast<int>(step.answer)]) += ' ';
    return text;
}

Exploration Explore(const Limits& limits) { return Reach(limits).result; }

std::vector<Trace> TracesOfEveryStep(const Limits& limits) {
    const Graph graph = Reach(limits);
    std::vector<Trace> traces;
    for (std::uint32_t at = 0; at < graph.visits.size(); ++at) {
        for (const Step step : NextSteps(graph.visits[at].state, limits)) {
            const Visit& next = graph.visits[graph.known.at(After(graph.visits[at].state, step, limits))];
            const bool isOnAWay = next.before == at && next.step == step && !NextSteps(next.state, limits).empty();
            if (isOnAWay) continue;  // a longer trace takes it
            traces.push_back(graph.TraceTo(at));
            traces.back().push_back(step);
        }
    }
    return traces;
}

}  // namespace kv::model
