#include "sqlite/sqlite.h"

namespace kv::sqlite {

namespace {

void Check(sqlite3* connection, int result) {
    if (result == SQLITE_OK) return;
    const char* const file = sqlite3_db_filename(connection, "main");
    throw DatabaseError(std::string("database ") + (file ? file : "") + ": " + sqlite3_errmsg(connection), result,
                        sqlite3_system_errno(connection));
}

/// SQLite stores a text or blob without an address as NULL.
const char* Address(std::string_view content) { return content.empty() ? "" : content.data(); }

}  // namespace

namespace {

/// path is what messages name; name is what SQLite gets.
Connection OpenByName(const std::string& path, const std::string& name, int flags) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(name.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection connection(opened);  // what failed to open must be closed, too
    if (result != SQLITE_OK) {
        throw DatabaseError("cannot open the database " + path + ": " + sqlite3_errmsg(opened), result,
                            opened ? sqlite3_system_errno(opened) : 0);
    }
    return connection;
}

}  // namespace

Connection Open(const std::string& path, Opening opening) {
    const int creation = opening == Opening::orCreate ? SQLITE_OPEN_CREATE : 0;
    return OpenByName(path, path, SQLITE_OPEN_READWRITE | creation);
}

Connection OpenUnchanging(const std::string& path) {
    std::string uri = "file:";
    for (const char character : path) {
        if (character == '%' || character == '?' || character == '#')
            uri += character == '%' ? "%25" : character == '?' ? "%3f" : "%23";
        else
            uri += character;
    }
    return OpenByName(path, uri + "?immutable=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

void ExecuteScript(sqlite3* connection, const char* sql) {
    Check(connection, sqlite3_exec(connection, sql, nullptr, nullptr, nullptr));
}

void Statement::Prepare(std::string_view sql) {
    sqlite3_stmt* prepared = nullptr;
    Check(connection_, sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &prepared, nullptr));
    statement_.reset(prepared);
}

void Statement::Bind(std::string_view text) {
    Check(connection_,
          sqlite3_bind_text64(statement_.get(), ++bound_, Address(text), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Statement::Bind(Blob blob) {
    Check(connection_, sqlite3_bind_blob64(statement_.get(), ++bound_, Address(blob.content), blob.content.size(),
                                           SQLITE_TRANSIENT));
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

std::string_view Statement::bytes(int column) const {
    const void* data = sqlite3_column_blob(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    if (data == nullptr) return {};
    return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

Transaction::Transaction(sqlite3* connection) : connection_(connection) {
    ExecuteScript(connection, "BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    // After some errors SQLite has undone it already.
    if (!sqlite3_get_autocommit(connection_)) sqlite3_exec(connection_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::Commit() { ExecuteScript(connection_, "COMMIT"); }

}  // namespace kv::sqlite
