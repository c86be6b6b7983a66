// Store and forward as a state machine: where each record is, which numbers are used and stored, which plan is in use.
// Three actors work beside each other, as the agent's threads do: one writes records, one packs and uploads, one
// installs plans. A step is one operation that changes a file, the registry or the server, together with what its
// thread does in memory up to its next one. A crash may come before any step; a start then works alone.
//
// Everything is finite: the limits say how many records, zips, plans and crashes a run has.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kv::model {

using Byte = std::uint8_t;

inline constexpr std::size_t mostRecords = 4;
inline constexpr std::size_t mostZips = 7;

/// An order of steps that the agent must not have, to see that the invariants notice it.
enum class Fault : Byte {
    none,
    recordDeletedBeforeZipIsNamed,
    recordNumberNotStored,
    zipNumberNotStored,
    zipDeletedWithoutAnswer,
    unfinishedZipStays,
    unfinishedRecordStays,
    planWrittenInPlace,
    newPlanIsBackup,
    newPlanNotLoaded,
    usedPlanStays,
};

struct Limits {
    Byte records = 2;  // at most mostRecords
    Byte zips = 2;     // at most mostZips - 3: emptying the queue takes some more
    Byte plans = 0;
    Byte crashes = 1;
    Fault fault = Fault::none;
};

/// Written: as .tmp, also when a crash has abandoned it. Gone: by a crash, or deleted at the start after it.
enum class RecordPhase : Byte { none, numbered, written, abandoned, complete, gone };
struct Record {
    RecordPhase phase = RecordPhase::none;
    Byte number = 0;
    Byte isInData = 0;  // as .txt
    Byte atServer = 0;  // how often, at most 2
    bool operator==(const Record&) const = default;
};

enum class ZipPhase : Byte { none, unfinished, closed, gone };
struct Zip {
    ZipPhase phase = ZipPhase::none;
    Byte number = 0;
    Byte records = 0;  // a bit for each
    bool operator==(const Zip&) const = default;
};

enum class Uploader : Byte {
    asleep,  // at the start, and between passes
    deletingUnfinished,
    storingRecordNumber,
    storingZipNumber,
    making,
    naming,
    deletingRecords,
    sending,
    deletingZip,
};
enum class Starter : Byte { down, deletingUnfinished, storingRecordNumber, storingZipNumber, up };
enum class Planner : Byte { idle, deletingOld, making, writing, copying, backingUp, installing, settingAside };

inline constexpr Byte noPlan = 0xFF, halfPlan = 0xFE;  // in the place of a version

/// Bytes only: states are compared and hashed as such.
struct State {
    std::array<Record, mostRecords> records{};  // in the order of their writing
    std::array<Zip, mostZips> zips{};           // in the order of their making
    Byte recordNumber = 1, zipNumber = 1;       // last used, in memory
    Byte storedRecordNumber = 1, storedZipNumber = 1;

    Starter starter = Starter::down;
    Uploader uploader = Uploader::asleep;
    Byte isAwake = 0;        // the uploader has deleted unfinished zips
    Byte batch = 0;          // records, a bit each, that are being packed
    Byte numberToStore = 0;  // of records, as it was when the batch was chosen
    Byte queue = 0;          // zips, a bit each, that this pass has still to send
    Planner planner = Planner::idle;
    Byte plan = 0, backup = noPlan, copy = noPlan, download = noPlan, loadedPlan = noPlan;  // versions
    Byte plansServed = 0, crashes = 0;

    bool operator==(const State&) const = default;
};

enum class Actor : Byte { starter, writer, uploader, planner, crash };

/// What the server does with a request. Of a plan it knows accepts and away only.
enum class Answer : Byte { accepts, takesWithoutAnswer, refuses, away };

struct Step {
    Actor actor = Actor::starter;
    Answer answer = Answer::accepts;
    bool operator==(const Step&) const = default;
};
using Trace = std::vector<Step>;

/// How many records have a number, whatever became of them.
std::size_t RecordsBegun(const State& state);

/// The steps that can come next.
std::vector<Step> NextSteps(const State& state, const Limits& limits);

/// The state after a step that can come next.
State After(const State& state, Step step, const Limits& limits);

std::string Describe(const Limits& limits);
/// Files, numbers and plans; numbers in memory count once the agent is up, and are 0 before.
std::string Describe(const State& state);
inline constexpr char describedState[] =
    "{} | numbers {} {} stored {} {} | plan {} backup {} copy {} download {} loaded {}";
std::string Describe(const Trace& trace);

struct Exploration {
    std::size_t states = 0, steps = 0;
    std::string failure;  // empty: no promise is broken
};

/// Visits every state, breadth first, up to the first that breaks a promise.
Exploration Explore(const Limits& limits);

/// Traces that together take every step of every state, each by a shortest way.
std::vector<Trace> TracesOfEveryStep(const Limits& limits);

}  // namespace kv::model
