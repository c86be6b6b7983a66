#include "lab/store/database.h"

namespace kv::lab {

namespace {

/// Held by PostgreSQL's transactions of Sharing::alone: any number that other programs are unlikely to use.
constexpr const char* lockAlone = "BEGIN; SELECT pg_advisory_xact_lock(1263946818)";

}  // namespace

bool IsPostgresPlace(std::string_view place) {
    return place.starts_with("postgresql://") || place.starts_with("postgres://");
}

std::unique_ptr<Database> OpenDatabase(const std::string& place, Opening opening) {
    // What stands behind may hold a password.
    if (const std::size_t end = place.find("://"); !IsPostgresPlace(place) && end != std::string::npos)
        throw DatabaseError("a database is a file or postgresql://..., not " + place.substr(0, end) + "://...");
    return IsPostgresPlace(place) ? OpenPostgres(place) : OpenSqlite(place, opening);
}

Transaction::Transaction(Database& database, Sharing sharing) : database_(database) {
    const bool isSqlite = database.kind() == DatabaseKind::sqlite;
    database.RunScript(isSqlite ? "BEGIN IMMEDIATE" : sharing == Sharing::alone ? lockAlone : "BEGIN");
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        database_.RunScript("ROLLBACK");
    } catch (const DatabaseError&) {
        // After some errors the database has undone it already.
    }
}

void Transaction::Commit() {
    database_.RunScript("COMMIT");
    open_ = false;
}

}  // namespace kv::lab
