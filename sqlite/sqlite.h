// A thin face of SQLite: an owned connection, statements and transactions. Everything that SQLite reports as an error
// is raised as DatabaseError. A connection and what was made from it belong to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kv::lab {

struct DatabaseError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ConnectionCloser {
    void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;

/// Opens a database file for reading and writing, making it when it is missing. A connection waits up to 30 seconds for
/// another one's transaction.
Connection OpenConnection(const std::string& path);

/// Runs statements that give no rows and take no arguments.
void ExecuteScript(sqlite3* connection, const char* sql);

/// An argument that is no text.
struct Bytes {
    std::string_view content;
};

/// One statement with its arguments bound in order: texts (UTF-8, may hold NUL), bytes and 64-bit integers.
class Statement {
  public:
    template <class... Arguments>
    Statement(sqlite3* connection, std::string_view sql, const Arguments&... arguments) : connection_(connection) {
        Prepare(sql);
        (Bind(arguments), ...);
    }

    /// Moves to the next row; false at the end.
    bool Step();

    /// Column of the present row; Text gives bytes too.
    std::int64_t Number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
    std::string Text(int column) const;

  private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };

    void Prepare(std::string_view sql);
    void Bind(std::string_view text);
    void Bind(Bytes bytes);
    void Bind(std::int64_t number);

    sqlite3* connection_;
    std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
    int bound_ = 0;
};

/// Runs a statement that gives no rows.
template <class... Arguments>
void Execute(sqlite3* connection, std::string_view sql, const Arguments&... arguments) {
    Statement statement(connection, sql, arguments...);
    while (statement.Step()) {
    }
}

/// First number of a statement's first row; 0 when there is no row.
template <class... Arguments>
std::int64_t NumberOf(sqlite3* connection, std::string_view sql, const Arguments&... arguments) {
    Statement statement(connection, sql, arguments...);
    return statement.Step() ? statement.Number(0) : 0;
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
    bool open_ = true;
};

}  // namespace kv::lab
