// Records over time: what came from whom, what failed and why, and when it was good again. Questions to the store about
// a range of time; each is bounded, so that a lab with many agents and records answers them at once.
//
// A source is what sends records of one name: an agent, one of its devices or slaves, and a record's name. A device is
// empty for the agent's own records, a name for records without one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store/store.h"

namespace kv::lab {

/// Times of collection, milliseconds since 1970; both ends belong to it.
struct Range {
    std::int64_t from = 0;
    std::int64_t to = 0;
};

/// What is asked for; absent stands for all.
struct Filter {
    std::optional<std::string> agent;
    std::optional<std::string> device;
    std::optional<std::string> name;
    bool failedOnly = false;
};

struct Source {
    std::int64_t number = 0;
    std::string agent;
    std::string device;
    std::string name;
    std::int64_t collected = 0;  // of its newest record
    bool failed = false;         // its newest record
};

/// Counts of a range. They are of good and failed records alike: failedOnly changes nothing.
struct Summary {
    std::int64_t agents = 0;
    std::int64_t agentsInContact = 0;  // that called since contactSince
    std::int64_t devices = 0;          // that sent records, besides the agents themselves
    std::int64_t sources = 0;          // that sent records
    std::int64_t failingSources = 0;   // whose newest record failed
    std::int64_t records = 0;
    std::int64_t failedRecords = 0;
    std::int64_t firstCollected = 0;  // of the oldest record in the range; 0 without records
    std::int64_t lastCollected = 0;   // of the newest record, also before the range; 0 without records
};
Summary Summarize(Store& store, const Range& range, const Filter& filter, std::int64_t contactSince);

/// Failures of one source for one reason.
struct Problem {
    Source source;
    std::string reason;
    std::int64_t times = 0;
    std::int64_t last = 0;        // when it was collected last
    std::int64_t lastRecord = 0;  // its number
    std::int64_t goodSince = 0;   // when the source sent the first good record after its last failure; 0 if not yet
};

struct Problems {
    std::vector<Problem> problems;  // those that still fail before those that are good again, each the latest first
    std::int64_t more = 0;          // problems that are left out
    bool older = false;             // there may be more failures than maxProblemRecords, which were not looked at
};

/// Only the newest failures of a range are looked at, this many.
inline constexpr std::int64_t maxProblemRecords = 20000;

/// At most `limit` problems.
Problems ReadProblems(Store& store, const Range& range, const Filter& filter, std::size_t limit);

/// The records of one source within one of the equal parts of a range.
struct Tick {
    std::int64_t start = 0;  // of the part
    std::int64_t records = 0;
    std::int64_t failed = 0;
    std::int64_t record = 0;     // the newest failed one if there is one, else the newest
    std::int64_t collected = 0;  // of that record
    std::string reason;          // why it failed
};

struct Track {
    Source source;
    std::vector<Tick> ticks;
    std::int64_t records = 0;
    std::int64_t failed = 0;
};

struct Tracks {
    std::vector<Track> tracks;  // those that fail now, those that failed in the range, the others; each by its names
    std::int64_t more = 0;      // sources that are left out
};

/// The sources that sent records within the range, with failedOnly those that sent failed ones, at most `limit` of
/// them. A tick is part milliseconds long and begins at a multiple of it.
Tracks ReadTracks(Store& store, const Range& range, const Filter& filter, std::int64_t part, std::int64_t limit);

struct HistoryRecord {
    std::int64_t number = 0;
    Source source;
    std::int64_t collected = 0;
    std::int64_t accepted = 0;
    bool failed = false;
    std::string reason;
    std::string zip;
    std::string file;
    std::int64_t bytes = 0;
};

/// Where a page of records begins: after this one, in the order of ReadHistory.
struct HistoryPlace {
    std::int64_t collected = INT64_MAX;
    std::int64_t number = INT64_MAX;
};

/// Newest first by the time of collection.
std::vector<HistoryRecord> ReadHistory(Store& store, const Range& range, const Filter& filter,
                                       const HistoryPlace& after, std::int64_t limit);

/// The numbers that the records of a range lie between; the first is the greater when nothing lies there.
struct NumberRange {
    std::int64_t first = 1;
    std::int64_t last = 0;
};
NumberRange ReadNumbers(Store& store, const Range& range);

/// Those with a number above `after`, in order; of any time.
std::vector<HistoryRecord> ReadHistoryAfter(Store& store, const Filter& filter, std::int64_t after, std::int64_t limit);

/// The text of a record; absent when the database does not hold it.
std::optional<RecordText> ReadContent(Store& store, std::int64_t number);

/// One record with its whole text, and its neighbours among the records of its source; 0 where there is no neighbour.
struct WholeRecord {
    HistoryRecord record;
    RecordText content;
    std::int64_t older = 0;
    std::int64_t newer = 0;
};
std::optional<WholeRecord> ReadWholeRecord(Store& store, std::int64_t number);

/// Agents that registered since `since` and have uploaded nothing yet, the latest first.
std::vector<Agent> AgentsWithoutUpload(Store& store, std::int64_t since);

/// Whether the database has heard of a source that fits.
bool SourceExists(Store& store, const Filter& filter);

/// What there is to filter by: agents, devices and names that sent records, each list at most `limit` long.
struct FilterChoices {
    std::vector<std::string> agents;
    std::vector<std::string> devices;
    std::vector<std::string> names;
};
FilterChoices ReadFilterChoices(Store& store, std::int64_t limit);

}  // namespace kv::lab
