#include "lab/store/store.h"

#include <chrono>

#include "lab/store/schema.h"

namespace kv::lab {

namespace {

std::string NewKey(Database& database, const AgentDetails& details) {
    Statement known(database, "SELECT key FROM agent WHERE id = ? AND dns = ? ORDER BY last_contact DESC", details.id,
                    details.dns);
    if (known.Step()) return known.text(0);
    for (std::int64_t number = 1 + QueryNumber(database, "SELECT count(*) FROM agent");; ++number) {
        std::string key = "LAB" + std::to_string(number);
        if (!Statement(database, "SELECT 1 FROM agent WHERE key = ?", key).Step()) return key;
    }
}

/// What an index can hold, since PostgreSQL refuses longer rows of one. A character that would be cut is left out.
std::string_view Indexable(std::string_view text) {
    if (text.size() <= maxIndexedBytes) return text;
    std::size_t end = maxIndexedBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end);
}

void AddReport(Store& store, std::string_view table, const Report& report) {
    Execute(*store.database,
            "INSERT INTO " + std::string(table) + " (agent, action, request_id, text, time) VALUES (?, ?, ?, ?, ?)",
            report.agent, report.action, Indexable(report.requestId), report.text, Now());
}

std::vector<Report> ReadReports(Statement rows) {
    std::vector<Report> reports;
    while (rows.Step()) reports.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4)});
    return reports;
}

Fault ReadFault(const Statement& row) {
    return {row.number(0), row.text(1), static_cast<FaultKind>(row.number(2)), row.number(3), row.number(4)};
}

constexpr std::string_view oldestFault =
    "SELECT number, servlet, kind, value, remaining FROM fault WHERE servlet IN (?, '*') ORDER BY number LIMIT 1";

/// While one lives, what is written may be lost with the power, and is written faster.
class QuickWrites {
  public:
    explicit QuickWrites(Database& database) : database_(database) {
        Set("PRAGMA synchronous = NORMAL", "SET synchronous_commit = off");
    }
    ~QuickWrites() {
        try {
            Set("PRAGMA synchronous = FULL", "RESET synchronous_commit");
        } catch (const DatabaseError&) {
            // The connection is lost, and its setting with it.
        }
    }
    QuickWrites(const QuickWrites&) = delete;
    QuickWrites& operator=(const QuickWrites&) = delete;

  private:
    void Set(const char* ofSqlite, const char* ofPostgres) {
        const bool isSqlite = database_.kind() == DatabaseKind::sqlite;
        database_.RunScript(isSqlite ? ofSqlite : ofPostgres);
    }

    Database& database_;
};

}  // namespace

std::int64_t Now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Store OpenStore(const std::string& place, Opening opening) {
    Store store{OpenDatabase(place, opening)};
    SettleSchema(*store.database, opening);
    return store;
}

std::string EnrolAgent(Store& store, const AgentDetails& details, bool hasKey) {
    Database& database = *store.database;
    Transaction transaction(database);
    const std::string key = hasKey ? details.key : NewKey(database, details);
    Execute(database, R"(
        INSERT INTO agent (key, id, dns, address, customer, office, os, first_contact, last_contact)
            VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?8)
            ON CONFLICT (key) DO UPDATE SET id = ?2, dns = ?3, address = ?4, customer = ?5, office = ?6, os = ?7,
                last_contact = ?8, status = '', status_time = 0)",
            key, details.id, details.dns, details.address, details.customer, details.office, details.osName, Now());
    transaction.Commit();
    return key;
}

void NoteContact(Store& store, std::string_view key, std::string_view address) {
    const QuickWrites quick(*store.database);
    Execute(*store.database,
            "INSERT INTO agent (key, address, first_contact, last_contact) VALUES (?1, ?2, ?3, ?3) "
            "ON CONFLICT (key) DO UPDATE SET last_contact = ?3",
            key, address, Now());
}

void NoteStatus(Store& store, std::string_view key, std::string_view status) {
    Execute(*store.database, "UPDATE agent SET status = ?2, status_time = ?3 WHERE key = ?1", key, status, Now());
}

std::vector<Agent> Agents(Store& store) {
    Statement rows(*store.database,
                   "SELECT key, id, dns, address, customer, office, os, first_contact, last_contact, status, "
                   "status_time FROM agent ORDER BY first_contact, key");
    std::vector<Agent> agents;
    while (rows.Step())
        agents.push_back(
            {{rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.text(4), rows.text(5), rows.text(6)},
             rows.number(7),
             rows.number(8),
             rows.text(9),
             rows.number(10)});
    return agents;
}

bool AgentExists(Store& store, std::string_view key) {
    return Statement(*store.database, "SELECT 1 FROM agent WHERE key = ?", key).Step();
}

void NoteRefusal(Store& store, const Refusal& refusal) {
    Execute(*store.database,
            "INSERT INTO refused (agent, zip, reason, address, time, times) VALUES (?1, ?2, ?3, ?4, ?5, 1) "
            "ON CONFLICT (agent, zip, reason) DO UPDATE SET address = ?4, time = ?5, times = refused.times + 1",
            Indexable(refusal.agent), Indexable(refusal.zip), Indexable(refusal.reason), refusal.address, Now());
    Execute(*store.database, "DELETE FROM refused WHERE number <= (SELECT max(number) FROM refused) - ?",
            maxKeptRefusals);
}

std::vector<Refusal> LatestRefusals(Store& store, std::int64_t limit) {
    Statement rows(
        *store.database,
        "SELECT agent, zip, reason, address, time, times FROM refused ORDER BY time DESC, number DESC LIMIT ?", limit);
    std::vector<Refusal> refusals;
    while (rows.Step())
        refusals.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4), rows.number(5)});
    return refusals;
}

void NoteAction(Store& store, const Report& report) { AddReport(store, "notice", report); }
void StoreAnswer(Store& store, const Report& report) { AddReport(store, "answer", report); }
std::vector<Report> LatestActions(Store& store, std::int64_t limit) {
    return ReadReports(
        Statement(*store.database,
                  "SELECT agent, action, request_id, text, time FROM notice ORDER BY number DESC LIMIT ?", limit));
}

std::vector<Report> LatestAnswers(Store& store, std::string_view agent, std::string_view requestId,
                                  std::int64_t limit) {
    return ReadReports(
        Statement(*store.database,
                  "SELECT agent, action, request_id, text, time FROM answer WHERE (?1 = '' OR agent = ?1) "
                  "AND (?2 = '' OR request_id = ?2) ORDER BY number DESC LIMIT ?3",
                  agent, requestId, limit));
}

std::int64_t AddFault(Store& store, const Fault& fault) {
    return QueryNumber(*store.database,
                       "INSERT INTO fault (servlet, kind, value, remaining) VALUES (?, ?, ?, ?) RETURNING number",
                       fault.servlet, static_cast<std::int64_t>(fault.kind), fault.value, fault.remaining);
}

std::int64_t ClearFaults(Store& store, std::int64_t number, std::string_view servlet) {
    return Execute(*store.database, "DELETE FROM fault WHERE (?1 = 0 OR number = ?1) AND (?2 = '' OR servlet = ?2)",
                   number, servlet);
}

std::vector<Fault> Faults(Store& store) {
    Statement rows(*store.database, "SELECT number, servlet, kind, value, remaining FROM fault ORDER BY number");
    std::vector<Fault> faults;
    while (rows.Step()) faults.push_back(ReadFault(rows));
    return faults;
}

std::optional<Fault> TakeFault(Store& store, std::string_view servlet) {
    Database& database = *store.database;
    // Usually there is no fault, and then the write lock is not needed.
    if (!Statement(database, oldestFault, servlet).Step()) return std::nullopt;
    Transaction transaction(database);
    std::optional<Fault> fault;
    {
        Statement row(database, oldestFault, servlet);
        if (row.Step()) fault = ReadFault(row);
    }
    if (fault && fault->remaining == 1) Execute(database, "DELETE FROM fault WHERE number = ?", fault->number);
    if (fault && fault->remaining > 1)
        Execute(database, "UPDATE fault SET remaining = remaining - 1 WHERE number = ?", fault->number);
    transaction.Commit();
    return fault;
}

std::string FaultText(const Fault& fault) {
    switch (fault.kind) {
        case FaultKind::status:
            return "status " + std::to_string(fault.value);
        case FaultKind::delay:
            return "delay " + std::to_string(fault.value) + " ms";
        case FaultKind::drop:
            return "drop";
        case FaultKind::cut:
            return "cut";
    }
    return "unknown";
}

Totals CountAll(Store& store) {
    Statement row(
        *store.database,
        "SELECT (SELECT count(*) FROM agent), (SELECT count(*) FROM delivery), (SELECT count(*) FROM record), "
        "(SELECT coalesce(sum(times), 0) FROM refused)");
    row.Step();
    return {row.number(0), row.number(1), row.number(2), row.number(3)};
}

}  // namespace kv::lab
