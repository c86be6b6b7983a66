#include "lab/store/prune.h"

#include <vector>

#include "lab/store/deliveries.h"

namespace kv::lab {

namespace {

/// What one transaction deletes, so that others wait for it only for a moment.
constexpr std::int64_t rowsTogether = 5000;

/// Runs a statement that deletes at most rowsTogether rows until it deletes fewer; gives how many it deleted.
std::int64_t DeleteAll(Database& database, std::string_view sql, std::int64_t before) {
    std::int64_t deleted = 0;
    while (true) {
        Transaction transaction(database);
        KeepUploadsOut(database);
        const std::int64_t rows = Execute(database, sql, before, rowsTogether);
        transaction.Commit();
        deleted += rows;
        if (rows < rowsTogether) return deleted;
    }
}

std::vector<std::int64_t> SeriesWithSamplesBefore(Database& database, std::int64_t before) {
    std::vector<std::int64_t> numbers;
    Statement rows(database,
                   "SELECT number FROM series s WHERE EXISTS "
                   "(SELECT 1 FROM sample WHERE sample.series = s.number AND sample.time < ?)",
                   before);
    while (rows.Step()) numbers.push_back(rows.number(0));
    return numbers;
}

/// Many series in one transaction, because each waits for its turn among the writers.
void DeleteSamples(Database& database, std::int64_t before) {
    const std::vector<std::int64_t> series = SeriesWithSamplesBefore(database, before);
    for (std::size_t at = 0; at < series.size();) {
        Transaction transaction(database);
        for (std::int64_t rows = 0; rows < rowsTogether && at < series.size(); ++at)
            rows += Execute(database, "DELETE FROM sample WHERE series = ? AND time < ?", series[at], before);
        transaction.Commit();
    }
}

/// In the order in which rows lose what refers to them. A source is kept as long as its newest record.
constexpr std::string_view deletions[]{
    "DELETE FROM series WHERE number IN (SELECT series.number FROM series JOIN source ON source.number = series.source "
    "WHERE source.collected < ? LIMIT ?)",
    "DELETE FROM source WHERE number IN (SELECT number FROM source WHERE collected < ? LIMIT ?)",
    "DELETE FROM delivery WHERE number IN (SELECT number FROM delivery WHERE time < ? "
    "AND NOT EXISTS (SELECT 1 FROM record WHERE record.delivery = delivery.number) LIMIT ?)",
    "DELETE FROM agent WHERE key IN (SELECT key FROM agent WHERE last_contact < ? AND NOT EXISTS (SELECT 1 FROM "
    "delivery "
    "WHERE delivery.agent = agent.key) LIMIT ?)",
    "DELETE FROM refused WHERE number IN (SELECT number FROM refused WHERE time < ? LIMIT ?)",
    "DELETE FROM notice WHERE number IN (SELECT number FROM notice WHERE time < ? LIMIT ?)",
    "DELETE FROM answer WHERE number IN (SELECT number FROM answer WHERE time < ? LIMIT ?)",
    "DELETE FROM request WHERE number IN (SELECT number FROM request WHERE ended > 0 AND ended < ? LIMIT ?)",
    "DELETE FROM conf WHERE number IN (SELECT number FROM conf c WHERE time < ? "
    "AND number < (SELECT max(number) FROM conf WHERE conf.agent = c.agent) AND NOT EXISTS (SELECT 1 FROM request "
    "WHERE ended = 0 AND members LIKE '%/conf/' || c.number || '/queryconf.zip%') LIMIT ?)",
};

/// Gives the space of deleted rows back to the disk. A file that an older version made learns to do so first.
void ShrinkFile(Database& database) {
    constexpr std::int64_t incremental = 2;
    const bool isReady = QueryNumber(database, "PRAGMA auto_vacuum") == incremental;
    if (!isReady) return database.RunScript("PRAGMA auto_vacuum = INCREMENTAL; VACUUM");
    constexpr std::int64_t pagesTogether = 1000;
    for (std::int64_t left = QueryNumber(database, "PRAGMA freelist_count"); left > 0; left -= pagesTogether)
        database.RunScript("PRAGMA incremental_vacuum(" + std::to_string(pagesTogether) + ")");
}

}  // namespace

std::int64_t Prune(Store& store, std::int64_t before) {
    Database& database = *store.database;
    DeleteSamples(database, before);
    const std::int64_t records = DeleteAll(
        database, "DELETE FROM record WHERE number IN (SELECT number FROM record WHERE collected < ? LIMIT ?)", before);
    for (const std::string_view deletion : deletions) DeleteAll(database, deletion, before);
    if (database.kind() == DatabaseKind::sqlite) ShrinkFile(database);
    return records;
}

}  // namespace kv::lab
