// SQLite for the registry and for the lab: an owned connection, statements and transactions. What SQLite reports as an
// error is thrown as DatabaseError. A connection and all that was made from it belong to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kv::sqlite {

class DatabaseError : public std::runtime_error {
  public:
    explicit DatabaseError(const std::string& message, int result = SQLITE_ERROR, int systemErrno = 0)
        : std::runtime_error(message), result_(result), systemErrno_(systemErrno) {}

    int result() const { return result_; }            // SQLite's code
    int systemErrno() const { return systemErrno_; }  // of the system call that failed; 0 when there was none

  private:
    int result_;
    int systemErrno_;
};

struct CloseConnection {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

enum class Opening { existing, orCreate };

/// Opens a database file for reading and writing. Where it is locked, statements fail at once: the caller sets how long
/// they wait.
Connection Open(const std::string& path, Opening opening);

/// Opens a database file that nobody changes meanwhile, for reading alone: without locks, and without the files beside
/// it. What another process writes is seen late, or in part.
Connection OpenUnchanging(const std::string& path);

/// Runs statements that give no rows and take no arguments.
void ExecuteScript(sqlite3* connection, const char* sql);

/// An argument that is stored as bytes, not as a text.
struct Blob {
    std::string_view content;
};

/// One statement with its arguments bound in order: texts (UTF-8, may hold NUL), blobs and 64-bit integers. They are
/// copied.
class Statement {
  public:
    template <class... Arguments>
    Statement(sqlite3* connection, std::string_view sql, const Arguments&... arguments) : connection_(connection) {
        Prepare(sql);
        (Bind(arguments), ...);
    }

    /// Moves to the next row; false at the end.
    bool Step();

    // A column of the present row, counted from 0. A text or blob that is NULL is empty, a number that is NULL is 0.
    std::int64_t number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
    std::string text(int column) const { return std::string(bytes(column)); }
    std::string_view bytes(int column) const;  // of a text or a blob; until the next Step

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };

    void Prepare(std::string_view sql);
    void Bind(std::string_view text);
    void Bind(Blob blob);
    void Bind(std::int64_t number);

    sqlite3* connection_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
    int bound_ = 0;
};

/// Runs a statement to its end; rows are dropped.
template <class... Arguments>
void Execute(sqlite3* connection, std::string_view sql, const Arguments&... arguments) {
    Statement statement(connection, sql, arguments...);
    while (statement.Step()) {
    }
}

/// The first number of a statement's first row; 0 when there is no row.
template <class... Arguments>
std::int64_t QueryNumber(sqlite3* connection, std::string_view sql, const Arguments&... arguments) {
    Statement statement(connection, sql, arguments...);
    return statement.Step() ? statement.number(0) : 0;
}

/// A transaction that holds the write lock from its start; undone unless committed.
class Transaction {
  public:
    explicit Transaction(sqlite3* connection);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

  private:
    sqlite3* connection_;
};

}  // namespace kv::sqlite
