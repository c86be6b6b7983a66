#include "lab/store/series.h"

#include <cmath>

namespace kv::lab {

namespace {

/// Takes the arguments 1 to 7: for each of agent, device and name whether it counts, and what it is; then whether only
/// failing sources are wanted.
constexpr std::string_view sourceFits =
    "(?1 = 0 OR s.agent = ?2) AND (?3 = 0 OR s.device = ?4) AND (?5 = 0 OR s.name = ?6) AND (?7 = 0 OR s.failed = 1) ";

template <class... Arguments>
Statement Ask(Store& store, const Filter& filter, std::string_view sql, const Arguments&... arguments) {
    const auto counts = [](const std::optional<std::string>& text) { return std::int64_t{text.has_value()}; };
    return Statement(*store.database, sql, counts(filter.agent), filter.agent.value_or(""), counts(filter.device),
                     filter.device.value_or(""), counts(filter.name), filter.name.value_or(""),
                     std::int64_t{filter.failedOnly}, arguments...);
}

SeriesName ReadName(const Statement& row) {
    return {row.number(0), row.text(1), row.text(2), row.text(3), row.text(4)};
}

}  // namespace

SeriesList ReadSeries(Store& store, const Range& range, const Filter& filter, const std::optional<std::string>& member,
                      std::int64_t limit) {
    static const std::string sql =
        "SELECT x.number, s.agent, s.device, s.name, x.member FROM source s JOIN series x ON x.source = s.number "
        "WHERE " +
        std::string(sourceFits) +
        "AND s.collected >= ?8 AND (?9 = 0 OR x.member = ?10) AND EXISTS (SELECT 1 FROM sample v "
        "WHERE v.series = x.number AND v.time BETWEEN ?8 AND ?11) ORDER BY x.number LIMIT ?12";
    Statement rows =
        Ask(store, filter, sql, range.from, std::int64_t{member.has_value()}, member.value_or(""), range.to, limit + 1);
    SeriesList list;
    while (rows.Step()) list.series.push_back(ReadName(rows));
    list.more = list.series.size() > static_cast<std::size_t>(limit);
    if (list.more) list.series.pop_back();
    return list;
}

std::optional<std::int64_t> ReadFirstTime(Store& store, std::int64_t series, const Range& range) {
    Statement row(*store.database,
                  "SELECT time FROM sample WHERE series = ? AND time BETWEEN ? AND ? ORDER BY time LIMIT 1", series,
                  range.from, range.to);
    return row.Step() ? std::optional(row.number(0)) : std::nullopt;
}

std::vector<Part> ReadParts(Store& store, std::int64_t series, const Range& range, std::int64_t part) {
    Statement rows(*store.database,
                   "SELECT min(time), max(time), min(number), max(number), avg(number) FROM sample "
                   "WHERE series = ?1 AND time BETWEEN ?2 AND ?3 GROUP BY time / ?4 ORDER BY 1",
                   series, range.from, range.to, part);
    std::vector<Part> parts;
    while (rows.Step()) parts.push_back({rows.number(0), rows.number(1), rows.real(2), rows.real(3), rows.real(4)});
    return parts;
}

std::vector<Part> ReadRates(Store& store, std::int64_t series, const Range& range, std::int64_t part, int bits) {
    // Agents write a 64-bit counter from 2^63 on with a sign. Samples of one time count as growth, but not as a rate.
    Statement rows(
        *store.database,
        "WITH count AS (SELECT time, record, CASE WHEN number < 0 THEN number + ?7 ELSE number END AS number "
        "FROM sample WHERE series = ?1 AND time BETWEEN ?2 AND ?3), "
        "step AS (SELECT time, number, lag(number) OVER steps AS before, "
        "time - lag(time) OVER steps AS pause FROM count WINDOW steps AS (ORDER BY time, record)), "
        "grown AS (SELECT time, pause, CASE WHEN number >= before THEN number - before "
        "WHEN before > ?5 AND number < ?5 THEN number - before + ?6 END AS growth FROM step) "
        "SELECT min(time), max(time), min(growth * 1000 / nullif(pause, 0)), "
        "max(growth * 1000 / nullif(pause, 0)), sum(growth) * 1000 / "
        "nullif(sum(CASE WHEN growth IS NOT NULL THEN pause END), 0) "
        "FROM grown GROUP BY time / ?4 ORDER BY 1",
        series, range.from, range.to, part, std::ldexp(1.0, bits - 1), std::ldexp(1.0, bits), std::ldexp(1.0, 64));
    const auto known = [&rows](int column) { return rows.isNull(column) ? std::nan("") : rows.real(column); };
    std::vector<Part> parts;
    while (rows.Step()) parts.push_back({rows.number(0), rows.number(1), known(2), known(3), known(4)});
    return parts;
}

double ReadLatestNumber(Store& store, std::int64_t series, const Range& range) {
    Statement row(*store.database,
                  "SELECT number FROM sample WHERE series = ? AND time BETWEEN ? AND ? ORDER BY time DESC, record DESC "
                  "LIMIT 1",
                  series, range.from, range.to);
    return row.Step() ? row.real(0) : std::nan("");
}

double ReadLatestRate(Store& store, std::int64_t series, const Range& range, int bits) {
    std::int64_t before = 0;
    {
        Statement row(*store.database,
                      "SELECT max(time) FROM sample WHERE series = ?1 AND time >= ?2 AND time < "
                      "(SELECT max(time) FROM sample WHERE series = ?1 AND time <= ?3)",
                      series, range.from, range.to);
        if (!row.Step() || row.isNull(0)) return std::nan("");
        before = row.number(0);
    }
    const std::vector<Part> rates = ReadRates(store, series, {before, range.to}, INT64_MAX, bits);
    return rates.empty() ? std::nan("") : rates[0].average;  // pruned meanwhile
}

std::vector<LatestValue> ReadLatestValues(Store& store, const Filter& filter, std::int64_t since, std::int64_t limit) {
    static const std::string sql =
        "SELECT x.number, s.agent, s.device, s.name, x.member, v.time, v.number FROM source s "
        "JOIN series x ON x.source = s.number "
        "JOIN sample v ON v.series = x.number AND v.time = s.collected AND v.record = s.record WHERE " +
        std::string(sourceFits) + "AND s.collected >= ?8 ORDER BY s.agent, s.device, s.name, x.member LIMIT ?9";
    Statement rows = Ask(store, filter, sql, since, limit);
    std::vector<LatestValue> values;
    while (rows.Step()) values.push_back({ReadName(rows), rows.number(5), rows.real(6)});
    return values;
}

}  // namespace kv::lab
