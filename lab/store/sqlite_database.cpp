// The lab's database as a file of SQLite.
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sqlite3.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "lab/store/database.h"
#include "sqlite/sqlite.h"

namespace kv::lab {

namespace {

/// How long a transaction of another connection is waited for, and how often it is looked whether it has ended.
/// SQLite's own pauses grow so long that one who waits beside busy writers never gets its turn.
constexpr int busyMilliseconds = 30000;
constexpr int busyPauseMilliseconds = 1;

int WaitWhileBusy(void*, int times) {
    if (times * busyPauseMilliseconds >= busyMilliseconds) return 0;
    sqlite3_sleep(busyPauseMilliseconds);
    return 1;
}

const char* Advice(int result) {
    // Who only reads writes, too: the index of the file's log, beside it.
    if (result == SQLITE_READONLY) return "; to read it, too, the file and its folder must be writable";
    if (result == SQLITE_FULL) return "; deleting records needs a little room, too";
    return "";
}

void Check(sqlite3* connection, int result) {
    if (result == SQLITE_OK) return;
    const char* const file = sqlite3_db_filename(connection, "main");
    throw DatabaseError(std::string("database ") + (file ? file : "") + ": " + sqlite3_errmsg(connection) +
                        Advice(result & 0xFF));
}

/// SQLite stores a text or blob without an address as NULL.
const char* Address(std::string_view content) { return content.empty() ? "" : content.data(); }

struct BindArgument {
    sqlite3_stmt* statement;
    int place;

    int operator()(std::int64_t number) const { return sqlite3_bind_int64(statement, place, number); }
    int operator()(double number) const { return sqlite3_bind_double(statement, place, number); }
    int operator()(std::string_view text) const {
        return sqlite3_bind_text64(statement, place, Address(text), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    int operator()(Blob blob) const {
        return sqlite3_bind_blob64(statement, place, Address(blob.content), blob.content.size(), SQLITE_TRANSIENT);
    }
};

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using OwnedStatement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

/// Statements that are not in use, by their text. One that runs twice at once is prepared twice.
using IdleStatements = std::multimap<std::string, OwnedStatement, std::less<>>;

class SqliteRows : public Rows {
  public:
    SqliteRows(sqlite3* connection, IdleStatements& idle, std::string_view sql, OwnedStatement statement)
        : connection_(connection), idle_(idle), sql_(sql), statement_(std::move(statement)) {}
    ~SqliteRows() override {
        sqlite3_reset(statement_.get());
        sqlite3_clear_bindings(statement_.get());
        idle_.emplace(std::move(sql_), std::move(statement_));
    }
    SqliteRows(const SqliteRows&) = delete;
    SqliteRows& operator=(const SqliteRows&) = delete;

    bool Step() override {
        const int result = sqlite3_step(statement_.get());
        if (result == SQLITE_ROW) return true;
        if (result != SQLITE_DONE) Check(connection_, result);
        return false;
    }
    bool isNull(int column) const override { return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL; }
    std::int64_t number(int column) const override { return sqlite3_column_int64(statement_.get(), column); }
    double real(int column) const override { return sqlite3_column_double(statement_.get(), column); }
    std::string text(int column) const override {
        const void* data = sqlite3_column_blob(statement_.get(), column);
        const int size = sqlite3_column_bytes(statement_.get(), column);
        if (data == nullptr) return {};
        return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
    }

  private:
    sqlite3* connection_;
    IdleStatements& idle_;
    std::string sql_;
    OwnedStatement statement_;
};

class SqliteDatabase : public Database {
  public:
    SqliteDatabase(std::string path, sqlite::Connection connection)
        : name_(std::move(path)), connection_(std::move(connection)), file_(FileAt(name_)) {
        sqlite3_busy_handler(connection_.get(), WaitWhileBusy, nullptr);
    }

    DatabaseKind kind() const override { return DatabaseKind::sqlite; }
    const std::string& name() const override { return name_; }
    std::int64_t changes() const override { return sqlite3_changes64(connection_.get()); }

    std::unique_ptr<Rows> Run(std::string_view sql, std::span<const Argument> arguments) override {
        OwnedStatement statement = Prepared(sql);
        for (int place = 1; const Argument& argument : arguments)
            Check(connection_.get(), std::visit(BindArgument{statement.get(), place++}, argument));
        return std::make_unique<SqliteRows>(connection_.get(), idle_, sql, std::move(statement));
    }

    void RunScript(const std::string& sql) override {
        // What is written to a file without a name is lost with the last who has it open.
        if (sql.starts_with("BEGIN") && FileAt(name_) != file_)
            throw DatabaseError("database " + name_ + ": the file was deleted or replaced while it was in use");
        Check(connection_.get(), sqlite3_exec(connection_.get(), sql.c_str(), nullptr, nullptr, nullptr));
    }

  private:
    OwnedStatement Prepared(std::string_view sql) {
        if (const auto found = idle_.find(sql); found != idle_.end()) return std::move(idle_.extract(found).mapped());
        sqlite3_stmt* prepared = nullptr;
        Check(connection_.get(),
              sqlite3_prepare_v2(connection_.get(), sql.data(), static_cast<int>(sql.size()), &prepared, nullptr));
        return OwnedStatement(prepared);
    }

    /// Which file a path leads to; zeros when it leads to none.
    static std::pair<dev_t, ino_t> FileAt(const std::string& path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? std::pair(status.st_dev, status.st_ino) : std::pair<dev_t, ino_t>();
    }

    std::string name_;
    sqlite::Connection connection_;
    const std::pair<dev_t, ino_t> file_;
    IdleStatements idle_;  // ends before the connection
};

/// Makes an empty file that is for its owner alone, as are the files that SQLite adds beside it. One that exists is not
/// opened: closing it would end the locks that this process holds on it.
void MakePrivateFile(const std::string& path) {
    const int file = open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file >= 0) {
        close(file);
    } else if (errno != EEXIST) {
        throw DatabaseError("cannot open the database " + path + ": " + std::generic_category().message(errno));
    }
}

}  // namespace

std::unique_ptr<Database> OpenSqlite(const std::string& path, Opening opening) {
    if (opening == Opening::orCreate) MakePrivateFile(path);
    try {
        return std::make_unique<SqliteDatabase>(path, sqlite::Open(path, sqlite::Opening::existing));
    } catch (const sqlite::DatabaseError& error) {
        throw DatabaseError(error.what());
    }
}

}  // namespace kv::lab
