// The SQLite file that holds the registry: connection, format and errors. registry.cpp knows what is stored in it.
//
// One connection for each process, opened at its first use; the caller lets one thread at a time use it. Only a write
// creates the file: registry.db in the state directory, readable by its owner only, because a proxy password may be in
// it. Write-ahead log and synchronous=FULL: a write that has returned survives a killed process and a power failure.
#pragma once

#include <cstdint>

#include "platform/errors.h"
#include "sqlite/sqlite.h"

namespace platform {

/// Does not move once it is connected: SQLite holds its address.
struct RegistryDatabase {
    kv::sqlite::Connection connection;
    std::uint64_t generation = 0;  // counts the connections
    bool preparedForWriting = false;
    std::int64_t unchangedSince = 0;  // file time, for a connection that would not see changes; else 0
    std::uint64_t lockDeadline = 0;   // tick count at which the wait for another process's lock ends
};

enum class Purpose { read, write };

/// Makes sure that the connection is open; opens the file again when it has been replaced. To read takes no room on a
/// full disk, unless a killed process has left changes that are to be carried over first. Waits at most 5 seconds for
/// another process. fileNotFound when there is no registry yet and the purpose is to read; otherwise busy,
/// accessDenied, databaseCorrupt or one of the system's errors. After a failure the next call tries again. A connection
/// that was open before stays open, unless the file turned out to be broken.
[[nodiscard]] Error Connect(RegistryDatabase& database, Purpose purpose);

/// Right after a failure: whether it came from a file that could only be read when it was opened, and can be written
/// by now. Its connection would stay as it is.
[[nodiscard]] bool HasBecomeWritable(const RegistryDatabase& database);

void Disconnect(RegistryDatabase& database);

/// The system error for what SQLite has reported.
Error ErrorFromSqlite(const kv::sqlite::DatabaseError& failure);

/// Runs an operation that gives an Error, and turns what SQLite reports into one.
template <class Operation>
Error WithSqliteErrors(Operation&& operation) {
    try {
        return operation();
    } catch (const kv::sqlite::DatabaseError& failure) {
        return ErrorFromSqlite(failure);
    }
}

}  // namespace platform
