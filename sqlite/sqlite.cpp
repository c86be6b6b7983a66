#include "lab/database.h"

namespace kv::lab {

namespace {

constexpr int busyMilliseconds = 30000;

void Check(sqlite3* connection, int result) {
    if (result != SQLITE_OK) throw DatabaseError(std::string("database: ") + sqlite3_errmsg(connection));
}

}  // namespace

Connection OpenConnection(const std::string& path) {
    sqlite3* raw = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection connection(raw);
    if (result != SQLITE_OK) throw DatabaseError("cannot open the database " + path + ": " + sqlite3_errmsg(raw));
    Check(raw, sqlite3_busy_timeout(raw, busyMilliseconds));
    return connection;
}

void ExecuteScript(sqlite3* connection, const char* sql) {
    Check(connection, sqlite3_exec(connection, sql, nullptr, nullptr, nullptr));
}

void Statement::Prepare(std::string_view sql) {
    sqlite3_stmt* raw = nullptr;
    Check(connection_, sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &raw, nullptr));
    statement_.reset(raw);
}

void Statement::Bind(std::string_view text) {
    // A view of no text may have no address, which would be bound as NULL.
    const char* data = text.empty() ? "" : text.data();
    Check(connection_,
          sqlite3_bind_text64(statement_.get(), ++bound_, data, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Statement::Bind(Bytes bytes) {
    const char* data = bytes.content.empty() ? "" : bytes.content.data();
    Check(connection_, sqlite3_bind_blob64(statement_.get(), ++bound_, data, bytes.content.size(), SQLITE_TRANSIENT));
}

void Statement::Bind(std::int64_t number) {
    Check(connection_, sqlite3_bind_int64(statement_.get(), ++bound_, number));
}

bool Statement::Step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) Check(connection_, result);
    return false;
}

std::string Statement::Text(int column) const {
    const auto* text = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
    return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))) : "";
}

Transaction::Transaction(sqlite3* connection) : connection_(connection) {
    ExecuteScript(connection, "BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (open_) sqlite3_exec(connection_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::Commit() {
    ExecuteScript(connection_, "COMMIT");
    open_ = false;
}

}  // namespace kv::lab
