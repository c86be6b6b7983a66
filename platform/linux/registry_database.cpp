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

using kv::sqlite::Execute;
using kv::sqlite::ExecuteScript;
using kv::sqlite::Statement;

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

/// SQLite calls it while another process holds the lock; 1 means to try again. Waits by the agent's clock. No exception
/// may pass through SQLite, so a clock that throws, as a test's may, ends the wait.
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
    const std::filesystem::path directory = path.parent_path();
    std::error_code failure;
    std::filesystem::create_directories(directory.parent_path(), failure);
    if (failure) return ErrorFromErrno(failure.value());
    if (mkdir(directory.c_str(), S_IRWXU | S_IRGRP | S_IXGRP) != 0 && errno != EEXIST) return ErrorFromErrno(errno);
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
    auto connection = kv::sqlite::Open(path, kv::sqlite::Opening::existing);
    sqlite3* opened = connection.get();
    sqlite3_db_config(opened, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    sqlite3_busy_handler(opened, WaitForLock, &database);
    // On a full disk SQLite would have no room to make the companion files again, and nothing could be read.
    int companionsStay = 1;
    sqlite3_file_control(opened, "main", SQLITE_FCNTL_PERSIST_WAL, &companionsStay);
    ExecuteScript(opened, connectionSettings);
    database.connection = std::move(connection);  // only once it is complete
    ++database.generation;
    return error::success;
}

/// success: a registry; fileNotFound: an empty database, as a killed process may leave it; databaseCorrupt: something
/// else, or a registry of a later version.
Error CheckFormat(sqlite3* connection) {
    // One statement sees one state of the file, even while another process makes the tables.
    Statement facts(connection,
                    "SELECT (SELECT application_id FROM pragma_application_id),"
                    " (SELECT user_version FROM pragma_user_version), (SELECT count(*) FROM sqlite_schema)");
    if (!facts.Step()) return error::databaseCorrupt;
    if (facts.number(0) == applicationId && facts.number(1) == schemaVersion) return error::success;
    const bool isEmpty = facts.number(0) == 0 && facts.number(1) == 0 && facts.number(2) == 0;
    return isEmpty ? error::fileNotFound : error::databaseCorrupt;
}

/// Switching needs the file alone for a moment, which SQLite does not always wait for by itself.
Error SwitchToWriteAheadLog(sqlite3* connection) {
    const std::uint64_t deadline = Clock().GetTickCount64() + lockPatienceMilliseconds;
    while (true) {
        const Error failure = WithSqliteErrors([&] {
            Execute(connection, "PRAGMA journal_mode = WAL");
            return error::success;
        });
        if (failure != error::busy || Clock().GetTickCount64() >= deadline) return failure;
        Clock().Sleep(lockPollMilliseconds);
    }
}

Error CreateTables(sqlite3* connection) {
    kv::sqlite::Transaction transaction(connection);
    const Error format = CheckFormat(connection);  // another process may have been quicker
    if (format != error::fileNotFound) return format;
    ExecuteScript(connection, schema);
    transaction.Commit();
    return error::success;
}

Error PrepareForWriting(RegistryDatabase& database) {
    const Error format = CheckFormat(database.connection.get());
    if (format != error::success && format != error::fileNotFound) return format;
    if (const Error failure = SwitchToWriteAheadLog(database.connection.get())) return failure;
    return format == error::fileNotFound ? CreateTables(database.connection.get()) : error::success;
}

std::filesystem::path RegistryPath() { return std::filesystem::path(StateDirectory()) / "registry.db"; }

/// When the file was last written, in nanoseconds; 0 when it cannot be looked at, or when changes wait beside it.
std::int64_t WriteTime(const std::filesystem::path& path) {
    constexpr std::int64_t second = 1'000'000'000;
    struct stat facts {};
    struct stat log {};
    if (stat((path.string() + "-wal").c_str(), &log) == 0 && log.st_size > 0) return 0;
    return stat(path.c_str(), &facts) == 0 ? facts.st_mtim.tv_sec * second + facts.st_mtim.tv_nsec : 0;
}

/// For a full disk, which has no room for the companion files.
Error OpenWithoutCompanions(RegistryDatabase& database, const std::filesystem::path& path) {
    const std::int64_t time = WriteTime(path);
    if (time == 0) return error::diskFull;
    auto connection = kv::sqlite::OpenUnchanging(path);
    ExecuteScript(connection.get(), connectionSettings);
    database.connection = std::move(connection);
    database.unchangedSince = time;
    ++database.generation;
    return CheckFormat(database.connection.get());
}

bool IsOutdated(const RegistryDatabase& database, Purpose purpose) {
    if (HasMoved(database.connection.get())) return true;
    if (database.unchangedSince == 0) return false;
    return purpose == Purpose::write || WriteTime(RegistryPath()) != database.unchangedSince;
}

Error OpenOrCreate(RegistryDatabase& database, Purpose purpose) {
    const std::filesystem::path path = RegistryPath();
    Error failure = purpose == Purpose::write ? CreateDatabaseFile(path) : error::success;
    if (failure == error::success) failure = WithSqliteErrors([&] { return OpenDatabase(database, path); });
    if (failure == error::success && purpose == Purpose::read)
        failure = WithSqliteErrors([&] { return CheckFormat(database.connection.get()); });
    if (failure == error::diskFull && purpose == Purpose::read) {
        Disconnect(database);
        failure = WithSqliteErrors([&] { return OpenWithoutCompanions(database, path); });
    }
    // When the state directory is missing, the registry is missing as well.
    return failure == error::pathNotFound && purpose == Purpose::read ? error::fileNotFound : failure;
}

}  // namespace

Error ErrorFromSqlite(const kv::sqlite::DatabaseError& failure) {
    const int systemError = failure.systemErrno();
    constexpr int basicCode = 0xFF;
    switch (failure.result() & basicCode) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_PROTOCOL:
            return error::busy;
        case SQLITE_PERM:
        case SQLITE_AUTH:
        case SQLITE_READONLY:
            return error::accessDenied;
        case SQLITE_CANTOPEN:  // the file is there, so what does not exist is one beside it that cannot be made
            return systemError && systemError != ENOENT ? ErrorFromErrno(systemError) : error::accessDenied;
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

Error Connect(RegistryDatabase& database, Purpose purpose) {
    if (database.connection && IsOutdated(database, purpose)) Disconnect(database);
    const bool wasOpen = database.connection != nullptr;
    Error failure = wasOpen ? error::success : OpenOrCreate(database, purpose);
    if (failure == error::success && purpose == Purpose::write && !database.preparedForWriting) {
        failure = WithSqliteErrors([&] { return PrepareForWriting(database); });
        database.preparedForWriting = failure == error::success;
    }
    // Open keys belong to their connection, so one that still reads outlives a write that could not begin.
    const bool broken = failure == error::databaseCorrupt || failure == error::readFault;
    if (broken || (failure != error::success && !wasOpen)) Disconnect(database);
    return failure;
}

bool HasBecomeWritable(const RegistryDatabase& database) {
    constexpr int basicCode = 0xFF;
    return database.connection && (sqlite3_errcode(database.connection.get()) & basicCode) == SQLITE_READONLY &&
           access(RegistryPath().c_str(), W_OK) == 0;
}

void Disconnect(RegistryDatabase& database) {
    database.connection.reset();
    database.preparedForWriting = false;
    database.unchangedSince = 0;
}

}  // namespace platform
