// The SQLite file behind the registry: connection, format and errors. What is stored in it is registry.cpp's.
//
// One connection a process, opened at first use; the caller sees to it that one thread at a time uses it. Only a write
// creates the file, registry.db in the state directory, readable by its owner alone, since a proxy password may be in
// it. Write-ahead log and synchronous=FULL: a write that has returned survives the end of the process and of the power.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

#include "platform/errors.h"

namespace platform {

struct CloseSqlite {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// Does not move once it is connected: SQLite holds its address.
struct RegistryDatabase {
    std::unique_ptr<sqlite3, CloseSqlite> connection;
    std::uint64_t generation = 0;  // counts the connections
    bool preparedForWriting = false;
    std::uint64_t lockDeadline = 0;  // tick count at which the wait for another process's lock ends
};

enum class Purpose { read, write };

/// Sees to an open connection; the file is opened anew when it has been replaced. Waits 5 seconds at most for another
/// process. fileNotFound when there is no registry yet and the purpose is to read; busy, accessDenied, databaseCorrupt
/// and the system's errors otherwise. After a failure the next call tries again; a connection that was open before
/// stays open, unless the file turned out to be broken.
Error Connect(RegistryDatabase& database, Purpose purpose);

void Disconnect(RegistryDatabase& database);

/// One SQL statement: bind in the order of the question marks, then Step until it gives no row.
class Statement {
  public:
    Statement(sqlite3* connection, const char* sql);

    Statement& Bind(std::int64_t number);
    Statement& Bind(const std::string& text);                  // must outlive the statement
    Statement& Bind(const std::byte* data, std::size_t size);  // must outlive the statement

    /// True when a row stands ready; false at the end, or when Failure() says what went wrong.
    bool Step();

    /// Runs to the end.
    Error Run();

    Error Failure() const;

    // Columns of the row that stands ready, counted from 0.
    std::int64_t Number(int column);
    std::string_view Bytes(int column);  // until the next step

  private:
    Statement& Note(int result);

    sqlite3* connection_;
    std::unique_ptr<sqlite3_stmt, CloseSqlite> statement_;
    int result_ = SQLITE_OK;
    int bound_ = 0;
};

/// A write transaction; undone at the end of its scope unless committed.
class Transaction {
  public:
    explicit Transaction(sqlite3* connection);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Whether the write lock was to be had.
    Error Begun() const { return begun_; }
    Error Commit();

  private:
    sqlite3* connection_;
    Error begun_;
};

}  // namespace platform
