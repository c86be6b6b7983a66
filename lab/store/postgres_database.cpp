// The lab's database on a PostgreSQL server, by libpq.
#include <charconv>
#include <cstdlib>
#include <libpq-fe.h>
#include <map>
#include <poll.h>
#include <vector>

#include "lab/store/database.h"
#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

using platform::ReleasedBy;
using Connection = std::unique_ptr<PGconn, ReleasedBy<PQfinish>>;
using Result = std::unique_ptr<PGresult, ReleasedBy<PQclear>>;

/// The first line of a message, without blanks at its end.
std::string FirstLine(std::string_view message) {
    const std::string_view line = message.substr(0, message.find('\n'));
    return std::string(line.substr(0, line.find_last_not_of(" \r") + 1));
}

/// Whether user and password hold none of the characters that end them: libpq would take the rest for something else,
/// and name it in its messages.
bool HasPlainUser(std::string_view address) {
    const std::size_t start = address.find("://") + 3;
    const std::size_t slash = address.find('/', start);
    const std::size_t query = slash == std::string_view::npos ? slash : address.find('?', slash);
    const std::string_view place = address.substr(start, query - start);
    const std::size_t userEnd = place.rfind('@');
    return userEnd == std::string_view::npos || place.substr(0, userEnd).find_first_of("@/?") == std::string_view::npos;
}

/// The address without user, password and parameters. Only of one with a plain user.
std::string NameWithoutPassword(const std::string& address) {
    const std::size_t start = address.find("://") + 3;
    const std::size_t userEnd = address.find('@', start);
    const std::size_t host = userEnd == std::string::npos || userEnd > address.find('/', start) ? start : userEnd + 1;
    return address.substr(0, start) + address.substr(host, address.find('?', host) - host);
}

/// "?" and "?1" as "$1". Texts in quotes are left alone.
std::string WithDollars(std::string_view sql) {
    std::string translated;
    int number = 0;
    bool quoted = false;
    for (std::size_t at = 0; at < sql.size(); ++at) {
        if (sql[at] == '\'') quoted = !quoted;
        if (quoted || sql[at] != '?') {
            translated += sql[at];
            continue;
        }
        const bool numbered = at + 1 < sql.size() && sql[at + 1] >= '1' && sql[at + 1] <= '9';
        translated += '$';
        if (!numbered) translated += std::to_string(++number);
    }
    return translated;
}

/// Arguments in the form that libpq takes.
class BoundArguments {
  public:
    explicit BoundArguments(std::span<const Argument> arguments) {
        for (const Argument& argument : arguments) std::visit(*this, argument);
        for (const std::string& text : texts_) values.push_back(text.c_str());
    }

    void operator()(std::int64_t number) { AddText(std::to_string(number)); }
    void operator()(double number) {
        std::array<char, 32> text;
        AddText({text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr});
    }
    void operator()(std::string_view text) { AddText(std::string(text)); }
    void operator()(Blob blob) { Add(std::string(blob.content), 1); }

    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;  // 0: text, 1: bytes

  private:
    void AddText(std::string text) { Add(std::move(text), 0); }
    void Add(std::string content, int format) {
        lengths.push_back(static_cast<int>(content.size()));
        formats.push_back(format);
        texts_.push_back(std::move(content));
    }

    std::vector<std::string> texts_;
};

constexpr Oid byteaType = 17;

class PostgresRows : public Rows {
  public:
    explicit PostgresRows(Result result) : result_(std::move(result)) {}

    bool Step() override { return ++row_ < PQntuples(result_.get()); }
    bool isNull(int column) const override { return PQgetisnull(result_.get(), row_, column) != 0; }
    std::int64_t number(int column) const override {
        std::int64_t number = 0;
        const std::string_view digits = View(column);
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
        return number;
    }
    double real(int column) const override { return std::strtod(PQgetvalue(result_.get(), row_, column), nullptr); }
    std::string text(int column) const override {
        if (PQftype(result_.get(), column) != byteaType) return std::string(View(column));
        std::size_t size = 0;
        const std::unique_ptr<unsigned char, ReleasedBy<PQfreemem>> bytes(
            PQunescapeBytea(reinterpret_cast<const unsigned char*>(PQgetvalue(result_.get(), row_, column)), &size));
        return {reinterpret_cast<const char*>(bytes.get()), size};
    }

  private:
    std::string_view View(int column) const {
        return {PQgetvalue(result_.get(), row_, column),
                static_cast<std::size_t>(PQgetlength(result_.get(), row_, column))};
    }

    Result result_;
    int row_ = -1;
};

/// A server that does not answer fails within seconds, unless the address says how long to wait.
PGconn* Connect(const std::string& address) {
    const char* const names[]{"connect_timeout", "dbname", nullptr};
    const char* const values[]{"10", address.c_str(), nullptr};
    return PQconnectdbParams(names, values, 1);
}

class PostgresDatabase : public Database {
  public:
    explicit PostgresDatabase(const std::string& address)
        : name_(NameWithoutPassword(address)), connection_(Connect(address)) {
        if (PQstatus(connection_.get()) != CONNECTION_OK) Fail();
        PQsetNoticeProcessor(
            connection_.get(), [](void*, const char*) {}, nullptr);
        PQsetnonblocking(connection_.get(), 1);
        RunScript("SET client_encoding = 'UTF8'; SET standard_conforming_strings = on");
    }

    DatabaseKind kind() const override { return DatabaseKind::postgresql; }
    const std::string& name() const override { return name_; }
    std::int64_t changes() const override { return changes_; }

    std::unique_ptr<Rows> Run(std::string_view sql, std::span<const Argument> arguments) override {
        const std::string& statement = Prepared(sql);
        const BoundArguments bound(arguments);
        Require(PQsendQueryPrepared(connection_.get(), statement.c_str(), static_cast<int>(bound.values.size()),
                                    bound.values.data(), bound.lengths.data(), bound.formats.data(), 0));
        Result result = Answered();
        changes_ = std::atoll(PQcmdTuples(result.get()));
        return std::make_unique<PostgresRows>(std::move(result));
    }

    void RunScript(const std::string& sql) override {
        Require(PQsendQuery(connection_.get(), sql.c_str()));
        Answered();
    }

  private:
    [[noreturn]] void Fail() const {
        throw DatabaseError("database " + name_ + ": " + FirstLine(PQerrorMessage(connection_.get())));
    }
    void Require(int success) const {
        if (success != 1) Fail();
    }

    /// Waits for the connection. A server that is silent for a minute, as one on a computer that hangs, fails.
    void Wait(short events) const {
        constexpr int longest = 60'000;
        pollfd socket{PQsocket(connection_.get()), events, 0};
        if (poll(&socket, 1, longest) == 0) throw DatabaseError("database " + name_ + ": no answer within a minute");
        Require(PQconsumeInput(connection_.get()));
    }

    /// The last result of what was sent.
    Result Answered() const {
        for (int unsent = PQflush(connection_.get()); unsent != 0; unsent = PQflush(connection_.get())) {
            if (unsent < 0) Fail();
            Wait(POLLIN | POLLOUT);
        }
        Result last;
        while (true) {
            while (PQisBusy(connection_.get()) != 0) Wait(POLLIN);
            Result next(PQgetResult(connection_.get()));
            if (!next) break;
            last = std::move(next);
        }
        const ExecStatusType status = PQresultStatus(last.get());
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) Fail();
        return last;
    }

    /// The name of the server's prepared statement for a text.
    const std::string& Prepared(std::string_view sql) {
        if (const auto found = prepared_.find(sql); found != prepared_.end()) return found->second;
        const std::string statement = "s" + std::to_string(prepared_.size());
        const std::string translated = WithDollars(sql);
        Require(PQsendPrepare(connection_.get(), statement.c_str(), translated.c_str(), 0, nullptr));
        Answered();
        return prepared_.emplace(sql, statement).first->second;
    }

    std::string name_;
    Connection connection_;
    std::map<std::string, std::string, std::less<>> prepared_;
    std::int64_t changes_ = 0;
};

}  // namespace

std::unique_ptr<Database> OpenPostgres(const std::string& address) {
    if (!HasPlainUser(address))
        throw DatabaseError("database " + address.substr(0, address.find("://")) +
                            "://...: write @, / and ? in names and the password as %40, %2F and %3F");
    // What libpq says about an address that it cannot read may hold the password.
    const std::unique_ptr<PQconninfoOption, ReleasedBy<PQconninfoFree>> parts(
        PQconninfoParse(address.c_str(), nullptr));
    if (!parts) throw DatabaseError("database " + NameWithoutPassword(address) + ": this address cannot be read");
    return std::make_unique<PostgresDatabase>(address);
}

}  // namespace kv::lab
