#include "lab/store/history.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "lab/store/natural_order.h"

namespace kv::lab {

namespace {

/// The records of so few sources are read source by source; those of more by going back in time.
constexpr std::size_t fewSources = 64;

constexpr std::string_view sourceColumns = "s.number, s.agent, s.device, s.name, s.collected, s.failed";
constexpr int sourceColumnCount = 6;

/// Takes the arguments 1 to 6: for each of agent, device and name whether it counts, and what it is.
constexpr std::string_view sourceFits =
    "(?1 = 0 OR s.agent = ?2) AND (?3 = 0 OR s.device = ?4) AND (?5 = 0 OR s.name = ?6) ";

std::string Sql(std::initializer_list<std::string_view> parts) {
    std::string sql;
    for (const std::string_view part : parts) sql += part;
    return sql;
}

std::int64_t Counts(const std::optional<std::string>& text) { return text ? 1 : 0; }

/// A statement with the arguments of sourceFits, then others from ?7 on.
template <class... Arguments>
Statement Ask(Store& store, const Filter& filter, std::string_view sql, const Arguments&... arguments) {
    return Statement(*store.database, sql, Counts(filter.agent), filter.agent.value_or(""), Counts(filter.device),
                     filter.device.value_or(""), Counts(filter.name), filter.name.value_or(""), arguments...);
}

bool IsAll(const Filter& filter) { return !filter.agent && !filter.device && !filter.name; }

Source ReadSource(const Statement& row, int first = 0) {
    return {row.number(first),   row.text(first + 1),   row.text(first + 2),
            row.text(first + 3), row.number(first + 4), row.number(first + 5) != 0};
}

void CountAgents(Store& store, const Filter& filter, std::int64_t contactSince, Summary& summary) {
    Statement row(*store.database,
                  "SELECT count(*), count(*) FILTER (WHERE last_contact >= ? AND status = '') FROM agent "
                  "WHERE ? = 0 OR key = ?",
                  contactSince, Counts(filter.agent), filter.agent.value_or(""));
    row.Step();
    summary.agents = row.number(0);
    summary.agentsInContact = row.number(1);
}

void CountSources(Store& store, const Range& range, const Filter& filter, Summary& summary) {
    Statement row = Ask(store, filter,
                        Sql({"SELECT count(DISTINCT nullif(s.device, '')) FILTER (WHERE s.collected >= ?7), "
                             "count(*) FILTER (WHERE s.collected >= ?7), "
                             "count(*) FILTER (WHERE s.collected >= ?7 AND s.failed = 1), "
                             "coalesce(max(s.collected), 0) FROM source s WHERE ",
                             sourceFits}),
                        range.from);
    row.Step();
    summary.devices = row.number(0);
    summary.sources = row.number(1);
    summary.failingSources = row.number(2);
    summary.lastCollected = row.number(3);
}

constexpr std::string_view recordCounts =
    "SELECT count(*), count(*) FILTER (WHERE r.failed = 1), coalesce(min(r.collected), 0) FROM record r ";

void CountRecords(Store& store, const Range& range, const Filter& filter, Summary& summary) {
    Statement row = IsAll(filter) ? Statement(*store.database, Sql({recordCounts, "WHERE r.collected BETWEEN ? AND ?"}),
                                              range.from, range.to)
                                  : Ask(store, filter,
                                        Sql({recordCounts, "WHERE r.source IN (SELECT s.number FROM source s WHERE ",
                                             sourceFits, ") AND r.collected BETWEEN ?7 AND ?8"}),
                                        range.from, range.to);
    row.Step();
    summary.records = row.number(0);
    summary.failedRecords = row.number(1);
    summary.firstCollected = row.number(2);
}

/// The failures of a range, newest first, put together by source and reason.
std::vector<Problem> GroupFailures(Statement& rows) {
    std::vector<Problem> problems;
    std::map<std::pair<std::int64_t, std::string>, std::size_t> places;
    while (rows.Step()) {
        Source source = ReadSource(rows);
        std::string reason = rows.text(sourceColumnCount);
        const auto [place, isNew] = places.try_emplace({source.number, reason}, problems.size());
        if (isNew)
            problems.push_back({std::move(source), std::move(reason), 0, rows.number(sourceColumnCount + 1),
                                rows.number(sourceColumnCount + 2), 0});
        ++problems[place->second].times;
    }
    return problems;
}

/// When the source sent its first good record after its last failure, which is a newer one than this problem's if it
/// failed for another reason since.
std::int64_t GoodSince(Store& store, const Source& source) {
    return QueryNumber(
        *store.database,
        "SELECT coalesce(min(collected), 0) FROM record WHERE source = ?1 AND failed = 0 AND collected > "
        "(SELECT coalesce(max(collected), 0) FROM record WHERE source = ?1 AND failed = 1)",
        source.number);
}

std::vector<Source> SourcesOf(Store& store, const Range& range, const Filter& filter, std::int64_t limit) {
    constexpr std::string_view failedInRange =
        "AND s.number IN (SELECT source FROM record WHERE failed = 1 AND collected BETWEEN ?7 AND ?9) ";
    constexpr std::string_view any = "AND ?9 = ?9 ";
    Statement rows = Ask(
        store, filter,
        Sql({"SELECT ", sourceColumns, " FROM source s WHERE ", sourceFits, "AND s.collected >= ?7 ",
             filter.failedOnly ? failedInRange : any, "ORDER BY s.failed DESC, s.agent, s.device, s.name LIMIT ?8"}),
        range.from, limit, range.to);
    std::vector<Source> sources;
    while (rows.Step()) sources.push_back(ReadSource(rows));
    return sources;
}

/// Those with failed records in a range.
std::set<std::int64_t> FailedSources(Store& store, const Range& range) {
    std::set<std::int64_t> sources;
    Statement rows(*store.database, "SELECT DISTINCT source FROM record WHERE failed = 1 AND collected BETWEEN ? AND ?",
                   range.from, range.to);
    while (rows.Step()) sources.insert(rows.number(0));
    return sources;
}

/// Gives the ticks of one source, and their sums.
Track ReadTrack(Store& store, const Source& source, const Range& range, std::int64_t part) {
    Track track{source, {}, 0, 0};
    Statement rows(*store.database, R"(
        SELECT t.part, t.records, t.failed, r.number, t.time, r.reason
        FROM (SELECT collected / ?4 AS part, count(*) AS records, count(*) FILTER (WHERE failed = 1) AS failed,
                coalesce(max(CASE WHEN failed = 1 THEN collected END), max(collected)) AS time
            FROM record WHERE source = ?1 AND collected BETWEEN ?2 AND ?3 GROUP BY 1) t
        JOIN record r ON r.number = (SELECT max(x.number) FROM record x
            WHERE x.source = ?1 AND x.collected = t.time AND (t.failed = 0 OR x.failed = 1)) ORDER BY t.part)",
                   source.number, range.from, range.to, part);
    while (rows.Step()) {
        track.ticks.push_back(
            {rows.number(0) * part, rows.number(1), rows.number(2), rows.number(3), rows.number(4), rows.text(5)});
        track.records += rows.number(1);
        track.failed += rows.number(2);
    }
    return track;
}

std::string HistorySql(std::string_view conditions) {
    return Sql({"SELECT ", sourceColumns,
                ", r.number, r.collected, d.time, r.failed, r.reason, d.zip, r.file, r.bytes FROM record r "
                "JOIN source s ON s.number = r.source JOIN delivery d ON d.number = r.delivery WHERE ",
                conditions});
}

HistoryRecord ReadHistoryRecord(const Statement& row) {
    int at = sourceColumnCount;
    HistoryRecord record;
    record.source = ReadSource(row);
    record.number = row.number(at++);
    record.collected = row.number(at++);
    record.accepted = row.number(at++);
    record.failed = row.number(at++) != 0;
    record.reason = row.text(at++);
    record.zip = row.text(at++);
    record.file = row.text(at++);
    record.bytes = row.number(at++);
    return record;
}

bool IsNewer(const HistoryRecord& a, const HistoryRecord& b) {
    return std::tie(a.collected, a.number) > std::tie(b.collected, b.number);
}

std::string_view FailedCondition(const Filter& filter) { return filter.failedOnly ? "AND r.failed = 1 " : ""; }

constexpr std::string_view newestFirst = "ORDER BY r.collected DESC, r.number DESC LIMIT ";

/// The newest records of each source, put together.
std::vector<HistoryRecord> HistoryBySource(Store& store, const std::vector<Source>& sources, const Range& range,
                                           const Filter& filter, const HistoryPlace& after, std::int64_t limit) {
    std::vector<HistoryRecord> records;
    const std::string sql =
        HistorySql(Sql({"r.source = ?1 AND r.collected BETWEEN ?2 AND ?3 AND (r.collected, "
                        "r.number) < (?3, ?4) ",
                        FailedCondition(filter), newestFirst, "?5"}));
    for (const Source& source : sources) {
        Statement rows(*store.database, sql, source.number, range.from, std::min(range.to, after.collected),
                       after.collected > range.to ? INT64_MAX : after.number, limit);
        while (rows.Step()) records.push_back(ReadHistoryRecord(rows));
    }
    std::sort(records.begin(), records.end(), IsNewer);
    if (records.size() > static_cast<std::size_t>(limit)) records.resize(static_cast<std::size_t>(limit));
    return records;
}

std::vector<std::string> Choices(Store& store, std::string_view column, std::int64_t limit) {
    Statement rows(*store.database, Sql({"SELECT DISTINCT ", column, " FROM source ORDER BY 1 LIMIT ?"}), limit);
    std::vector<std::string> choices;
    while (rows.Step()) choices.push_back(rows.text(0));
    return choices;
}

}  // namespace

Summary Summarize(Store& store, const Range& range, const Filter& filter, std::int64_t contactSince) {
    Summary summary;
    CountAgents(store, filter, contactSince, summary);
    CountSources(store, range, filter, summary);
    CountRecords(store, range, filter, summary);
    return summary;
}

Problems ReadProblems(Store& store, const Range& range, const Filter& filter, std::size_t limit) {
    Statement rows =
        Ask(store, filter,
            Sql({"SELECT ", sourceColumns,
                 ", r.reason, r.collected, r.number FROM record r JOIN source s ON s.number = r.source ",
                 "WHERE r.failed = 1 AND r.collected BETWEEN ?7 AND ?8 AND ", sourceFits, newestFirst, "?9"}),
            range.from, range.to, maxProblemRecords);
    Problems found{GroupFailures(rows), 0, false};
    std::int64_t looked = 0;
    for (const Problem& problem : found.problems) looked += problem.times;
    found.older = looked == maxProblemRecords;
    std::vector<Problem>& problems = found.problems;
    std::stable_partition(problems.begin(), problems.end(),
                          [](const Problem& problem) { return problem.source.failed; });
    if (problems.size() > limit) {
        found.more = static_cast<std::int64_t>(problems.size() - limit);
        problems.resize(limit);
    }
    for (Problem& problem : problems)
        if (!problem.source.failed) problem.goodSince = GoodSince(store, problem.source);
    return found;
}

Tracks ReadTracks(Store& store, const Range& range, const Filter& filter, std::int64_t part, std::int64_t limit) {
    std::vector<Source> sources = SourcesOf(store, range, filter, INT64_MAX);
    const std::set<std::int64_t> failed = FailedSources(store, range);
    std::sort(sources.begin(), sources.end(), [&failed](const Source& a, const Source& b) {
        if (a.failed != b.failed) return a.failed;
        if (failed.contains(a.number) != failed.contains(b.number)) return failed.contains(a.number);
        if (a.agent != b.agent) return NaturallyLess(a.agent, b.agent);
        return a.device != b.device ? NaturallyLess(a.device, b.device) : NaturallyLess(a.name, b.name);
    });
    Tracks tracks;
    const auto shown = std::min<std::int64_t>(limit, static_cast<std::int64_t>(sources.size()));
    tracks.more = static_cast<std::int64_t>(sources.size()) - shown;
    sources.resize(static_cast<std::size_t>(shown));
    for (const Source& source : sources) tracks.tracks.push_back(ReadTrack(store, source, range, part));
    return tracks;
}

std::vector<HistoryRecord> ReadHistory(Store& store, const Range& range, const Filter& filter,
                                       const HistoryPlace& after, std::int64_t limit) {
    if (!IsAll(filter)) {
        const std::vector<Source> sources = SourcesOf(store, range, filter, fewSources + 1);
        if (sources.size() <= fewSources) return HistoryBySource(store, sources, range, filter, after, limit);
    }
    Statement rows = Ask(
        store, filter,
        HistorySql(Sql({sourceFits, "AND r.collected BETWEEN ?7 AND ?8 AND (r.collected, r.number) < (?8, ?9) ",
                        FailedCondition(filter), newestFirst, "?10"})),
        range.from, std::min(range.to, after.collected), after.collected > range.to ? INT64_MAX : after.number, limit);
    std::vector<HistoryRecord> records;
    while (rows.Step()) records.push_back(ReadHistoryRecord(rows));
    return records;
}

NumberRange ReadNumbers(Store& store, const Range& range) {
    Statement row(*store.database, "SELECT min(number), max(number) FROM record WHERE collected BETWEEN ? AND ?",
                  range.from, range.to);
    if (!row.Step() || row.isNull(0)) return {};
    return {row.number(0), row.number(1)};
}

std::vector<HistoryRecord> ReadHistoryAfter(Store& store, const Filter& filter, std::int64_t after,
                                            std::int64_t limit) {
    Statement rows =
        Ask(store, filter,
            HistorySql(Sql({sourceFits, "AND r.number > ?7 ", FailedCondition(filter), "ORDER BY r.number LIMIT ?8"})),
            after, limit);
    std::vector<HistoryRecord> records;
    while (rows.Step()) records.push_back(ReadHistoryRecord(rows));
    return records;
}

std::optional<RecordText> ReadContent(Store& store, std::int64_t number) {
    Statement row(*store.database, "SELECT file, text, is_json FROM record WHERE number = ?", number);
    if (!row.Step()) return std::nullopt;
    return RecordText{row.text(0), row.text(1), row.number(2) != 0};
}

std::optional<WholeRecord> ReadWholeRecord(Store& store, std::int64_t number) {
    WholeRecord whole;
    {
        Statement row(*store.database, HistorySql("r.number = ?"), number);
        if (!row.Step()) return std::nullopt;
        whole.record = ReadHistoryRecord(row);
    }
    const HistoryRecord& record = whole.record;
    if (std::optional<RecordText> content = ReadContent(store, number)) whole.content = std::move(*content);
    whole.older = QueryNumber(*store.database,
                              "SELECT number FROM record WHERE source = ? AND (collected, number) < (?, ?) "
                              "ORDER BY collected DESC, number DESC LIMIT 1",
                              record.source.number, record.collected, number);
    whole.newer = QueryNumber(*store.database,
                              "SELECT number FROM record WHERE source = ? AND (collected, number) > (?, ?) "
                              "ORDER BY collected, number LIMIT 1",
                              record.source.number, record.collected, number);
    return whole;
}

std::vector<Agent> AgentsWithoutUpload(Store& store, std::int64_t since) {
    Statement rows(*store.database,
                   "SELECT key FROM agent a WHERE first_contact >= ? AND NOT EXISTS (SELECT 1 FROM delivery d WHERE "
                   "d.agent = a.key)",
                   since);
    std::set<std::string> keys;
    while (rows.Step()) keys.insert(rows.text(0));
    std::vector<Agent> agents;
    if (!keys.empty()) agents = Agents(store);
    std::erase_if(agents, [&](const Agent& agent) { return !keys.contains(agent.details.key); });
    std::reverse(agents.begin(), agents.end());
    return agents;
}

bool SourceExists(Store& store, const Filter& filter) {
    return Ask(store, filter, Sql({"SELECT 1 FROM source s WHERE ", sourceFits, "LIMIT 1"})).Step();
}

FilterChoices ReadFilterChoices(Store& store, std::int64_t limit) {
    return {Choices(store, "agent", limit), Choices(store, "device", limit), Choices(store, "name", limit)};
}

}  // namespace kv::lab
