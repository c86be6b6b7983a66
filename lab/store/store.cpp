#include "lab/store/store.h"

#include <chrono>

#include "lab/store/schema.h"

namespace kv::lab {

namespace {

using sqlite::Execute;
using sqlite::QueryNumber;
using sqlite::Statement;
using sqlite::Transaction;

constexpr int busyMilliseconds = 30000;  // to wait for a transaction of another connection

std::string NewKey(sqlite3* connection, const AgentDetails& details) {
    Statement known(connection, "SELECT key FROM agent WHERE id = ? AND dns = ? ORDER BY last_contact DESC", details.id,
                    details.dns);
    if (known.Step()) return known.text(0);
    for (std::int64_t number = 1 + QueryNumber(connection, "SELECT count(*) FROM agent");; ++number) {
        std::string key = "LAB" + std::to_string(number);
        if (!Statement(connection, "SELECT 1 FROM agent WHERE key = ?", key).Step()) return key;
    }
}

/// Whether an earlier delivery of the same agent and zip holds the same records.
bool IsRepeat(sqlite3* connection, std::int64_t delivery) {
    Statement same(connection, R"(
        SELECT 1 FROM delivery new JOIN delivery old USING (agent, zip) WHERE new.number = ?1 AND old.number < ?1
            AND (SELECT count(*) FROM record WHERE delivery = old.number)
                = (SELECT count(*) FROM record WHERE delivery = ?1)
            AND NOT EXISTS (SELECT 1 FROM record a LEFT JOIN record b
                ON b.delivery = old.number AND b.position = a.position
                WHERE a.delivery = ?1 AND (a.file IS NOT b.file OR a.text IS NOT b.text)))",
                   delivery);
    return same.Step();
}

constexpr std::string_view recordColumns =
    "SELECT r.number, d.agent, d.zip, d.time, r.file, r.is_json, r.bytes, "
    "CASE WHEN r.bytes <= ? THEN r.text ELSE substr(r.text, 1, ?) END FROM record r JOIN delivery d ON "
    "d.number = r.delivery ";

std::vector<Record> ReadRecords(Statement& rows, std::int64_t maxBytes) {
    std::vector<Record> records;
    std::int64_t bytes = 0;
    while (bytes < maxBytes && rows.Step()) {
        records.push_back({rows.number(0),
                           rows.text(1),
                           rows.text(2),
                           rows.number(3),
                           {rows.text(4), rows.text(7), rows.number(5) != 0},
                           rows.number(6)});
        bytes += rows.number(6);
    }
    return records;
}

void AddReport(Store& store, std::string_view table, const Report& report) {
    Execute(store.connection.get(),
            "INSERT INTO " + std::string(table) + " (agent, action, request_id, text, time) VALUES (?, ?, ?, ?, ?)",
            report.agent, report.action, report.requestId, report.text, Now());
}

std::vector<Report> LatestReports(Store& store, std::string_view table, std::int64_t limit) {
    Statement rows(
        store.connection.get(),
        "SELECT agent, action, request_id, text, time FROM " + std::string(table) + " ORDER BY number DESC LIMIT ?",
        limit);
    std::vector<Report> reports;
    while (rows.Step()) reports.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4)});
    return reports;
}

Fault ReadFault(const Statement& row) {
    return {row.number(0), row.text(1), static_cast<FaultKind>(row.number(2)), row.number(3), row.number(4)};
}

constexpr std::string_view oldestFault =
    "SELECT number, servlet, kind, value, remaining FROM fault WHERE servlet IN (?, '*') ORDER BY number LIMIT 1";

}  // namespace

std::int64_t Now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Store OpenStore(const std::string& path) {
    Store store{sqlite::Open(path, sqlite::Opening::orCreate)};
    sqlite3_busy_timeout(store.connection.get(), busyMilliseconds);
    SettleSchema(store.connection.get(), path);
    return store;
}

std::string EnrolAgent(Store& store, const AgentDetails& details, bool hasKey) {
    sqlite3* connection = store.connection.get();
    Transaction transaction(connection);
    const std::string key = hasKey ? details.key : NewKey(connection, details);
    Execute(connection, R"(
        INSERT INTO agent (key, id, dns, address, customer, office, os, first_contact, last_contact)
            VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?8)
            ON CONFLICT (key) DO UPDATE SET id = ?2, dns = ?3, address = ?4, customer = ?5, office = ?6, os = ?7,
                last_contact = ?8, status = '', status_time = 0)",
            key, details.id, details.dns, details.address, details.customer, details.office, details.osName, Now());
    transaction.Commit();
    return key;
}

void NoteContact(Store& store, std::string_view key, std::string_view address) {
    Execute(store.connection.get(),
            "INSERT INTO agent (key, address, first_contact, last_contact) VALUES (?1, ?2, ?3, ?3) "
            "ON CONFLICT (key) DO UPDATE SET last_contact = ?3",
            key, address, Now());
}

void NoteStatus(Store& store, std::string_view key, std::string_view status) {
    Execute(store.connection.get(), "UPDATE agent SET status = ?2, status_time = ?3 WHERE key = ?1", key, status,
            Now());
}

std::vector<Agent> Agents(Store& store) {
    Statement rows(store.connection.get(),
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
    return Statement(store.connection.get(), "SELECT 1 FROM agent WHERE key = ?", key).Step();
}

Delivery StoreDelivery(Store& store, std::string_view agent, std::string_view zip,
                       const std::function<void(const RecordSink&)>& readRecords) {
    sqlite3* connection = store.connection.get();
    Transaction transaction(connection);
    Execute(connection, "INSERT INTO delivery (agent, zip, time) VALUES (?, ?, ?)", agent, zip, Now());
    const std::int64_t delivery = sqlite3_last_insert_rowid(connection);
    std::int64_t position = 0;
    readRecords([&](const RecordText& record) {
        Execute(connection,
                "INSERT INTO record (delivery, position, file, text, bytes, is_json) VALUES (?, ?, ?, ?, ?, ?)",
                delivery, position++, record.file, record.text, static_cast<std::int64_t>(record.text.size()),
                static_cast<std::int64_t>(record.isJson));
    });
    if (IsRepeat(connection, delivery)) return Delivery::repeated;
    transaction.Commit();
    return Delivery::stored;
}

std::vector<Record> RecordsAfter(Store& store, const RecordQuery& query) {
    Statement rows(
        store.connection.get(),
        std::string(recordColumns) + "WHERE r.number > ? AND (?4 = '' OR d.agent = ?4) ORDER BY r.number LIMIT ?5",
        INT64_MAX, std::int64_t{0}, query.after, query.agent, query.limit);
    return ReadRecords(rows, query.maxBytes);
}

std::vector<Record> LatestRecords(Store& store, std::int64_t limit, std::int64_t maxBytes,
                                  std::int64_t previewCharacters) {
    Statement rows(store.connection.get(), std::string(recordColumns) + "ORDER BY r.number DESC LIMIT ?", maxBytes,
                   previewCharacters, limit);
    return ReadRecords(rows, INT64_MAX);
}

void NoteRefusal(Store& store, const Refusal& refusal) {
    Execute(store.connection.get(),
            "INSERT INTO refused (agent, zip, reason, address, time, times) VALUES (?1, ?2, ?3, ?4, ?5, 1) "
            "ON CONFLICT (agent, zip, reason) DO UPDATE SET address = ?4, time = ?5, times = times + 1",
            refusal.agent, refusal.zip, refusal.reason, refusal.address, Now());
}

std::vector<Refusal> LatestRefusals(Store& store, std::int64_t limit) {
    Statement rows(
        store.connection.get(),
        "SELECT agent, zip, reason, address, time, times FROM refused ORDER BY time DESC, number DESC LIMIT ?", limit);
    std::vector<Refusal> refusals;
    while (rows.Step())
        refusals.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4), rows.number(5)});
    return refusals;
}

void NoteAction(Store& store, const Report& report) { AddReport(store, "notice", report); }
void StoreAnswer(Store& store, const Report& report) { AddReport(store, "answer", report); }
std::vector<Report> LatestActions(Store& store, std::int64_t limit) { return LatestReports(store, "notice", limit); }
std::vector<Report> LatestAnswers(Store& store, std::int64_t limit) { return LatestReports(store, "answer", limit); }

std::int64_t AddFault(Store& store, const Fault& fault) {
    Execute(store.connection.get(), "INSERT INTO fault (servlet, kind, value, remaining) VALUES (?, ?, ?, ?)",
            fault.servlet, static_cast<std::int64_t>(fault.kind), fault.value, fault.remaining);
    return sqlite3_last_insert_rowid(store.connection.get());
}

std::int64_t ClearFaults(Store& store, std::int64_t number, std::string_view servlet) {
    Execute(store.connection.get(), "DELETE FROM fault WHERE (?1 = 0 OR number = ?1) AND (?2 = '' OR servlet = ?2)",
            number, servlet);
    return sqlite3_changes64(store.connection.get());
}

std::vector<Fault> Faults(Store& store) {
    Statement rows(store.connection.get(), "SELECT number, servlet, kind, value, remaining FROM fault ORDER BY number");
    std::vector<Fault> faults;
    while (rows.Step()) faults.push_back(ReadFault(rows));
    return faults;
}

std::optional<Fault> TakeFault(Store& store, std::string_view servlet) {
    sqlite3* connection = store.connection.get();
    // Usually there is no fault, and then the write lock is not needed.
    if (!Statement(connection, oldestFault, servlet).Step()) return std::nullopt;
    Transaction transaction(connection);
    std::optional<Fault> fault;
    {
        Statement row(connection, oldestFault, servlet);
        if (row.Step()) fault = ReadFault(row);
    }
    if (fault && fault->remaining == 1) Execute(connection, "DELETE FROM fault WHERE number = ?", fault->number);
    if (fault && fault->remaining > 1)
        Execute(connection, "UPDATE fault SET remaining = remaining - 1 WHERE number = ?", fault->number);
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
        store.connection.get(),
        "SELECT (SELECT count(*) FROM agent), (SELECT count(*) FROM delivery), (SELECT count(*) FROM record), "
        "(SELECT coalesce(sum(times), 0) FROM refused)");
    row.Step();
    return {row.number(0), row.number(1), row.number(2), row.number(3)};
}

}  // namespace kv::lab
