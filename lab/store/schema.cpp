#include "lab/store/schema.h"

#include <array>
#include <cstdint>

#include "sqlite/sqlite.h"

namespace kv::lab {

namespace {

using sqlite::DatabaseError;
using sqlite::ExecuteScript;
using sqlite::QueryNumber;

constexpr std::int64_t applicationId = 0x4B564C42;  // "KVLB"

/// What each version adds to the one before it, the first to an empty file.
constexpr std::array additions{
    R"(
PRAGMA application_id = 1263946818;
PRAGMA user_version = 1;
CREATE TABLE agent (
    key TEXT PRIMARY KEY, id TEXT NOT NULL DEFAULT '', dns TEXT NOT NULL DEFAULT '', address TEXT NOT NULL DEFAULT '',
    customer TEXT NOT NULL DEFAULT '', office TEXT NOT NULL DEFAULT '', os TEXT NOT NULL DEFAULT '',
    first_contact INTEGER NOT NULL, last_contact INTEGER NOT NULL,
    status TEXT NOT NULL DEFAULT '', status_time INTEGER NOT NULL DEFAULT 0);
CREATE TABLE delivery (
    number INTEGER PRIMARY KEY AUTOINCREMENT, agent TEXT NOT NULL, zip TEXT NOT NULL, time INTEGER NOT NULL);
CREATE INDEX delivery_by_zip ON delivery (agent, zip);
CREATE TABLE record (
    number INTEGER PRIMARY KEY AUTOINCREMENT, delivery INTEGER NOT NULL REFERENCES delivery, position INTEGER NOT NULL,
    file TEXT NOT NULL, text TEXT NOT NULL, bytes INTEGER NOT NULL, is_json INTEGER NOT NULL,
    UNIQUE (delivery, position));
CREATE TABLE refused (
    number INTEGER PRIMARY KEY, agent TEXT NOT NULL, zip TEXT NOT NULL, reason TEXT NOT NULL, address TEXT NOT NULL,
    time INTEGER NOT NULL, times INTEGER NOT NULL, UNIQUE (agent, zip, reason));
CREATE TABLE notice (
    number INTEGER PRIMARY KEY, agent TEXT NOT NULL, action TEXT NOT NULL, request_id TEXT NOT NULL, text TEXT NOT NULL,
    time INTEGER NOT NULL);
CREATE TABLE answer (
    number INTEGER PRIMARY KEY, agent TEXT NOT NULL, action TEXT NOT NULL, request_id TEXT NOT NULL, text TEXT NOT NULL,
    time INTEGER NOT NULL);
CREATE TABLE fault (
    number INTEGER PRIMARY KEY AUTOINCREMENT, servlet TEXT NOT NULL, kind INTEGER NOT NULL, value INTEGER NOT NULL,
    remaining INTEGER NOT NULL);
)",
    R"(
PRAGMA user_version = 2;
CREATE TABLE request (
    number INTEGER PRIMARY KEY AUTOINCREMENT, agent TEXT NOT NULL, id TEXT NOT NULL UNIQUE, type TEXT NOT NULL,
    members TEXT NOT NULL, silent INTEGER NOT NULL, state TEXT NOT NULL DEFAULT 'waiting', added INTEGER NOT NULL,
    listed INTEGER NOT NULL DEFAULT 0, ended INTEGER NOT NULL DEFAULT 0, listings INTEGER NOT NULL DEFAULT 0);
CREATE INDEX request_by_agent ON request (agent, state);
CREATE TABLE conf (
    number INTEGER PRIMARY KEY AUTOINCREMENT, agent TEXT NOT NULL, zip BLOB NOT NULL, time INTEGER NOT NULL);
)"};

constexpr auto newestVersion = static_cast<std::int64_t>(additions.size());

/// 0 for a file that is new and holds nothing.
std::int64_t SchemaVersion(sqlite3* connection, const std::string& path) {
    if (QueryNumber(connection, "PRAGMA application_id") != applicationId) {
        if (QueryNumber(connection, "SELECT count(*) FROM sqlite_master") == 0) return 0;
        throw DatabaseError(path + " is not a lab's database");
    }
    const std::int64_t version = QueryNumber(connection, "PRAGMA user_version");
    if (version < 1 || version > newestVersion) throw DatabaseError(path + " was made by another version of kvlab");
    return version;
}

}  // namespace

void SettleSchema(sqlite3* connection, const std::string& path) {
    const std::int64_t found = SchemaVersion(connection, path);
    if (found == newestVersion) return;
    if (found == 0) ExecuteScript(connection, "PRAGMA journal_mode = WAL");
    // Another process may have been faster.
    sqlite::Transaction transaction(connection);
    for (std::int64_t version = SchemaVersion(connection, path); version < newestVersion; ++version)
        ExecuteScript(connection, additions[static_cast<std::size_t>(version)]);
    transaction.Commit();
}

}  // namespace kv::lab
