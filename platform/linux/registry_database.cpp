#include "platform/linux/registry_database.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/linux/linux.h"

namespace platform {

namespace {

constexpr std::uint64_t lockPatienceMilliseconds = 5000;
constexpr std::uint32_t lockPollMilliseconds = 10;
constexpr int applicationId = 0x4B565247;  // "KVRG", so that no other program's database is taken for a registry
constexpr int schemaVersion = 1;

constexpr const char* connectionSettings =
    "PRAGMA trusted_schema = OFF;"
    "PRAGMA cell_size_check = ON;"
    "PRAGMA cache_size = -64;"  // KiB
    "PRAGMA synchronous = FULL;"
    "PRAGMA wal_autocheckpoint = 64;"       // pages
    "PRAGMA journal_size_limit = 262144;";  // bytes of the log, once it has been carried over

// Row 1 of the keys is the root. Names compare without regard to the case of ASCII letters, and keep the case of their
// first creation. Rows of keys are never numbered twice, so a handle to a deleted key cannot come to mean another one.
constexpr const char* schema =
    "CREATE TABLE key (id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL,"
    " name TEXT NOT NULL COLLATE NOCASE, UNIQUE (parent, name));"
    "CREATE TABLE value (key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE, type INTEGER NOT NULL,"
    " data BLOB NOT NULL, PRIMARY KEY (key, name)) WITHOUT ROWID;"
    "INSERT INTO key (id, parent, name) VALUES (1, 0, 'HKEY_LOCAL_MACHINE');"
    "PRAGMA application_id = 0x4B565247;"
    "PRAGMA user_version = 1;";

/// The one place where SQLite's results become system errors.
Error ErrorFromSqlite(sqlite3* connection, int result) {
    const int systemError = connection ? sqlite3_system_errno(connection) : 0;
    switch (result & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return error::success;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_PROTOCOL:
            return error::busy;
        case SQLITE_PERM:
        case SQLITE_AUTH:
        case SQLITE_READONLY:
            return error::accessDenied;
        case SQLITE_CANTOPEN:
            return systemError ? ErrorFromErrno(systemError) : error::accessDenied;
        case SQLITE_IOERR:
            return systemError ? ErrorFromErrno(systemError) : error::readFault;
        case SQLITE_NOMEM:
            return error::notEnoughMemory;
        case SQLITE_FULL:
            return error::diskFull;
        case SQLITE_TOOBIG:
            return error::invalidParameter;
        case SQLITE_ERROR:  // the tables are not those that are expected
        case SQLITE_SCHEMA:
        case SQLITE_CORRUPT:
        case SQLITE_CONSTRAINT:
        case SQLITE_MISMATCH:
        case SQLITE_NOTADB:
            return error::databaseCorrupt;
        default:
            return error::generalFailure;
    }
}

Error Execute(sqlite3* connection, const char* sql) {
    return ErrorFromSqlite(connection, sqlite3_exec(connection, sql, nullptr, nullptr, nullptr));
}

/// Called by SQLite while another process holds the lock: 1 to try again. Waits on the agent's clock. No exception may
/// pass through SQLite, so a clock that throws ends the waiting.
int WaitForLock(void* context, int attempt) {
    RegistryDatabase& database = *static_cast<RegistryDatabase*>(context);
    try {
        const std::uint64_t now = Clock().GetTickCount64();
        if (attempt == 0) database.lockDeadline = now + lockPatienceMilliseconds;
        if (now >= database.lockDeadline) return 0;
        Clock().Sleep(attempt == 0 ? 1 : lockPollMilliseconds);
        return 1;
    } catch (...) {
        return 0;
    }
}

/// Makes an empty file that only its owner can read. SQLite gives its companion files the same mode.
Error CreateDatabaseFile(const std::filesystem::path& path) {
    std::error_code failure;
    const bool isNew = std::filesystem::create_directories(path.parent_path(), failure);
    if (!failure && isNew && chmod(path.parent_path().c_str(), S_IRWXU | S_IRGRP | S_IXGRP) != 0)
        return ErrorFromErrno(errno);
    if (failure) return ErrorFromErrno(failure.value());
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0) return errno == EEXIST ? error::success : ErrorFromErrno(errno);
    close(file);
    return error::success;
}

bool HasMoved(sqlite3* connection) {
    int moved = 0;
    return sqlite3_file_control(connection, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

Error OpenDatabase(RegistryDatabase& database, const std::filesystem::path& path) {
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0) return ErrorFromErrno(errno);
    if (!S_ISREG(facts.st_mode)) return error::accessDenied;
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database.connection.reset(opened);  // also what failed to open must be closed
    ++database.generation;
    if (result != SQLITE_OK) return ErrorFromSqlite(opened, result);
    sqlite3_db_config(opened, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    sqlite3_busy_handler(opened, WaitForLock, &database);
    // On a full disk SQLite would have no room to make them again, and nothing could be read: it uses theirs.
    int companionsStay = 1;
    sqlite3_file_control(opened, "main", SQLITE_FCNTL_PERSIST_WAL, &companionsStay);
    return Execute(opened, connectionSettings);
}

/// success: a registry; fileNotFound: an empty database, which a killed process may have left; databaseCorrupt:
/// something else, or a registry of a later version.
Error CheckFormat(sqlite3* connection) {
    Statement facts(connection,
                    "SELECT (SELECT application_id FROM pragma_application_id),"
                    " (SELECT user_version FROM pragma_user_version), (SELECT count(*) FROM sqlite_schema)");
    if (!facts.Step()) return facts.Failure() ? facts.Failure() : error::databaseCorrupt;
    if (facts.Number(0) == applicationId && facts.Number(1) == schemaVersion) return error::success;
    const bool empty = facts.Number(0) == 0 && facts.Number(1) == 0 && facts.Number(2) == 0;
    return empty ? error::fileNotFound : error::databaseCorrupt;
}

/// Switching needs the file alone for a moment, and SQLite does not always wait for that by itself.
Error SwitchToWriteAheadLog(sqlite3* connection) {
    const std::uint64_t deadline = Clock().GetTickCount64() + lockPatienceMilliseconds;
    while (true) {
        const Error failure = Statement(connection, "PRAGMA journal_mode = WAL").Run();
        if (failure != error::busy || Clock().GetTickCount64() >= deadline) return failure;
        Clock().Sleep(lockPollMilliseconds);
    }
}

Error CreateTables(sqlite3* connection) {
    Transaction transaction(connection);
    if (transaction.Begun()) return transaction.Begun();
    Error failure = CheckFormat(connection);  // another process may have been quicker
    if (failure == error::fileNotFound) failure = Execute(connection, schema);
    return failure == error::success ? transaction.Commit() : failure;
}

Error PrepareForWriting(RegistryDatabase& database) {
    const Error format = CheckFormat(database.connection.get());
    if (format != error::success && format != error::fileNotFound) return format;
    if (const Error failure = SwitchToWriteAheadLog(database.connection.get())) return failure;
    return format == error::fileNotFound ? CreateTables(database.connection.get()) : error::success;
}

Error OpenOrCreate(RegistryDatabase& database, Purpose purpose) {
    const std::filesystem::path path = std::filesystem::path(StateDirectory()) / "registry.db";
    Error failure = purpose == Purpose::write ? CreateDatabaseFile(path) : error::success;
    if (failure == error::success) failure = OpenDatabase(database, path);
    if (failure == error::success && purpose == Purpose::read) failure = CheckFormat(database.connection.get());
    // Without a state directory there is no registry either.
    return failure == error::pathNotFound && purpose == Purpose::read ? error::fileNotFound : failure;
}

}  // namespace

Error Connect(RegistryDatabase& database, Purpose purpose) {
    if (database.connection && HasMoved(database.connection.get())) Disconnect(database);
    const bool wasOpen = database.connection != nullptr;
    Error failure = wasOpen ? error::success : OpenOrCreate(database, purpose);
    if (failure == error::success && purpose == Purpose::write && !database.preparedForWriting) {
        failure = PrepareForWriting(database);
        database.preparedForWriting = failure == error::success;
    }
    // Open keys belong to their connection, so one that still reads outlives a write that could not begin.
    const bool broken = failure == error::databaseCorrupt || failure == error::readFault;
    if (broken || (failure != error::success && !wasOpen)) Disconnect(database);
    return failure;
}

void Disconnect(RegistryDatabase& database) {
    database.connection.reset();
    database.preparedForWriting = false;
}

Statement::Statement(sqlite3* connection, const char* sql) : connection_(connection) {
    sqlite3_stmt* statement = nullptr;
    result_ = sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr);
    statement_.reset(statement);
}

Statement& Statement::Note(int result) {
    if (result_ == SQLITE_OK) result_ = result;
    return *this;
}

Statement& Statement::Bind(std::int64_t number) { return Note(sqlite3_bind_int64(statement_.get(), ++bound_, number)); }

Statement& Statement::Bind(const std::string& text) {
    return Note(sqlite3_bind_text(statement_.get(), ++bound_, text.data(), static_cast<int>(text.size()), nullptr));
}

Statement& Statement::Bind(const std::byte* data, std::size_t size) {
    const void* bytes = size ? static_cast<const void*>(data) : "";  // a null pointer would be stored as NULL
    return Note(sqlite3_bind_blob(statement_.get(), ++bound_, bytes, static_cast<int>(size), nullptr));
}

bool Statement::Step() {
    if (result_ == SQLITE_OK || result_ == SQLITE_ROW) result_ = sqlite3_step(statement_.get());
    return result_ == SQLITE_ROW;
}

Error Statement::Run() {
    while (Step()) {
    }
    return Failure();
}

Error Statement::Failure() const { return ErrorFromSqlite(connection_, result_); }

std::int64_t Statement::Number(int column) { return sqlite3_column_int64(statement_.get(), column); }

std::string_view Statement::Bytes(int column) {
    const void* data = sqlite3_column_blob(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    if (!data) return {};
    return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

Transaction::Transaction(sqlite3* connection)
    : connection_(connection), begun_(Execute(connection, "BEGIN IMMEDIATE")) {}

Transaction::~Transaction() {
    if (!sqlite3_get_autocommit(connection_)) Execute(connection_, "ROLLBACK");
}

Error Transaction::Commit() { return Execute(connection_, "COMMIT"); }

}  // namespace platform
