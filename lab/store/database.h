// The lab's database behind one face: a file of SQLite, or a PostgreSQL server. All statements of the lab are written
// once, in what both understand. A connection and all that was made from it belong to one thread at a time.
//
// Arguments stand as "?", or as "?1" and so on where one is used several times. Texts are UTF-8 and do not hold NUL.
// Whole numbers have 64 bits, truth values are 0 and 1.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace kv::lab {

/// What the database reports as an error, in one line that names the database and holds no password.
struct DatabaseError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// An argument that is stored as bytes, not as a text.
struct Blob {
    std::string_view content;
};

using Argument = std::variant<std::int64_t, double, std::string_view, Blob>;

/// What a statement gives, row by row.
class Rows {
  public:
    Rows() = default;
    virtual ~Rows() = default;
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;

    /// Moves to the next row, from the start to the first; false at the end.
    virtual bool Step() = 0;

    // A column of the present row, counted from 0. NULL reads as 0 and as an empty text.
    virtual bool isNull(int column) const = 0;
    virtual std::int64_t number(int column) const = 0;
    virtual double real(int column) const = 0;
    virtual std::string text(int column) const = 0;  // of a text or of bytes
};

enum class DatabaseKind { sqlite, postgresql };

/// One connection. Its routines throw DatabaseError.
class Database {
  public:
    Database() = default;
    virtual ~Database() = default;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    virtual DatabaseKind kind() const = 0;

    /// Where it is, for messages: without a password.
    virtual const std::string& name() const = 0;

    /// Starts a statement. Arguments are copied.
    virtual std::unique_ptr<Rows> Run(std::string_view sql, std::span<const Argument> arguments) = 0;

    /// Runs statements without arguments and drops what they give.
    virtual void RunScript(const std::string& sql) = 0;

    /// What the last statement has changed, in rows.
    virtual std::int64_t changes() const = 0;
};

enum class Opening { existing, orCreate };

/// Opens what --database names: a path of SQLite's file, or postgresql://... (also postgres://...). A new file is for
/// its owner alone.
std::unique_ptr<Database> OpenDatabase(const std::string& place, Opening opening);

/// Whether a place is that of a PostgreSQL server.
bool IsPostgresPlace(std::string_view place);

// The two kinds; OpenDatabase chooses.
std::unique_ptr<Database> OpenSqlite(const std::string& path, Opening opening);
std::unique_ptr<Database> OpenPostgres(const std::string& address);

/// One statement with its arguments in order.
class Statement {
  public:
    template <class... Arguments>
    Statement(Database& database, std::string_view sql, const Arguments&... arguments) {
        const std::array<Argument, sizeof...(arguments)> bound{AsArgument(arguments)...};
        rows_ = database.Run(sql, bound);
    }

    bool Step() { return rows_->Step(); }
    bool isNull(int column) const { return rows_->isNull(column); }
    std::int64_t number(int column) const { return rows_->number(column); }
    double real(int column) const { return rows_->real(column); }
    std::string text(int column) const { return rows_->text(column); }

  private:
    static Argument AsArgument(std::int64_t number) { return number; }
    static Argument AsArgument(double number) { return number; }
    static Argument AsArgument(std::string_view text) { return text; }
    static Argument AsArgument(Blob blob) { return blob; }

    std::unique_ptr<Rows> rows_;
};

/// Runs a statement to its end; rows are dropped. Gives how many rows it has changed.
template <class... Arguments>
std::int64_t Execute(Database& database, std::string_view sql, const Arguments&... arguments) {
    Statement statement(database, sql, arguments...);
    while (statement.Step()) {
    }
    return database.changes();
}

/// The first number of a statement's first row; 0 when there is no row.
template <class... Arguments>
std::int64_t QueryNumber(Database& database, std::string_view sql, const Arguments&... arguments) {
    Statement statement(database, sql, arguments...);
    return statement.Step() ? statement.number(0) : 0;
}

/// How a transaction stands to others that write.
enum class Sharing {
    alone,       // one such transaction at a time
    withOthers,  // PostgreSQL lets several of these go on at once; SQLite has one writer anyway
};

/// A transaction, undone unless committed.
class Transaction {
  public:
    explicit Transaction(Database& database, Sharing sharing = Sharing::alone);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

  private:
    Database& database_;
    bool open_ = true;
};

}  // namespace kv::lab
