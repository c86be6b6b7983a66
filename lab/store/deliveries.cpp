#include "lab/store/deliveries.h"

#include <array>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <unordered_map>

#include "lab/store/record_facts.h"
#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

/// Tells zips of other content apart: SHA-256 over the names and texts of their records.
class Digest {
  public:
    Digest() : context_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }

    void Add(const RecordText& record) {
        for (const std::string_view text : {std::string_view(record.file), std::string_view(record.text)}) {
            const std::string size = std::to_string(text.size()) + ":";
            EVP_DigestUpdate(context_.get(), size.data(), size.size());
            EVP_DigestUpdate(context_.get(), text.data(), text.size());
        }
    }
    std::string Text() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
        unsigned int size = 0;
        EVP_DigestFinal_ex(context_.get(), bytes.data(), &size);
        return fmt::format("{:02x}", fmt::join(bytes.begin(), bytes.begin() + size, ""));
    }

  private:
    std::unique_ptr<EVP_MD_CTX, platform::ReleasedBy<EVP_MD_CTX_free>> context_;
};

/// The number of a row that exists or is made now.
template <class... Arguments>
std::int64_t FindOrInsert(Database& database, std::string_view find, std::string_view insert,
                          const Arguments&... arguments) {
    {
        Statement found(database, find, arguments...);
        if (found.Step()) return found.number(0);
    }
    return QueryNumber(database, insert, arguments...);
}

std::int64_t SourceNumber(Database& database, std::string_view agent, const RecordFacts& facts) {
    return FindOrInsert(database, "SELECT number FROM source WHERE agent = ? AND device = ? AND name = ?",
                        "INSERT INTO source (agent, device, name, collected, failed, record) VALUES (?, ?, ?, 0, 0, 0) "
                        "RETURNING number",
                        agent, facts.device, facts.name);
}

/// The numbers of a source's series by their member.
std::unordered_map<std::string, std::int64_t> SeriesOf(Database& database, std::int64_t source) {
    std::unordered_map<std::string, std::int64_t> numbers;
    Statement rows(database, "SELECT member, number FROM series WHERE source = ?", source);
    while (rows.Step()) numbers.emplace(rows.text(0), rows.number(1));
    return numbers;
}

struct StoredRecord {
    std::int64_t number = 0;
    std::int64_t source = 0;
    std::int64_t collected = 0;
};

/// Rows go in many at a time: each statement is a way to the server and back.
void InsertSamples(Database& database, const StoredRecord& record,
                   const std::vector<std::pair<std::int64_t, double>>& samples) {
    constexpr std::size_t together = 50;
    constexpr std::string_view one = "(?, ?, ?, ?)";
    constexpr std::string_view insert = "INSERT INTO sample (series, time, record, number) VALUES ";
    static const std::string many =
        std::string(insert) + fmt::format("{}", fmt::join(std::vector<std::string_view>(together, one), ", "));
    static const std::string single = std::string(insert) + std::string(one);
    for (std::size_t at = 0; at < samples.size();) {
        const std::size_t count = samples.size() - at >= together ? together : 1;
        std::vector<Argument> arguments;
        for (const std::size_t end = at + count; at < end; ++at)
            arguments.insert(arguments.end(), {samples[at].first, record.collected, record.number, samples[at].second});
        database.Run(count == 1 ? single : many, arguments)->Step();
    }
}

/// The series of the sources that one transaction stores records of.
using KnownSeries = std::unordered_map<std::int64_t, std::unordered_map<std::string, std::int64_t>>;

void StoreSamples(Database& database, const StoredRecord& record, const std::vector<Sample>& samples,
                  KnownSeries& known) {
    if (samples.empty()) return;
    const auto [place, isNew] = known.try_emplace(record.source);
    auto& series = place->second;
    if (isNew) series = SeriesOf(database, record.source);
    std::vector<std::pair<std::int64_t, double>> numbered;
    for (const Sample& sample : samples) {
        std::int64_t& number = series[sample.member];
        if (number == 0)
            number = QueryNumber(database, "INSERT INTO series (source, member) VALUES (?, ?) RETURNING number",
                                 record.source, sample.member);
        numbered.emplace_back(number, sample.number);
    }
    InsertSamples(database, record, numbered);
}

/// Makes the record its source's newest one, unless a newer one has come before.
void UpdateSource(Database& database, const StoredRecord& record, bool failed) {
    Execute(database,
            "UPDATE source SET collected = ?2, failed = ?3, record = ?4 WHERE number = ?1 AND collected <= ?2",
            record.source, record.collected, std::int64_t{failed}, record.number);
}

struct FactualRecord {
    const RecordText& text;
    RecordFacts facts;
};

void StoreRecord(Database& database, std::string_view agent, std::int64_t delivery, std::int64_t position,
                 const FactualRecord& record, KnownSeries& known) {
    const auto& [text, facts] = record;
    StoredRecord stored{0, SourceNumber(database, agent, facts), facts.collected};
    stored.number = QueryNumber(
        database,
        "INSERT INTO record (delivery, position, file, text, bytes, is_json, source, collected, failed, reason) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?) RETURNING number",
        delivery, position, text.file, text.text, static_cast<std::int64_t>(text.text.size()),
        std::int64_t{text.isJson}, stored.source, facts.collected, std::int64_t{facts.failed}, facts.reason);
    UpdateSource(database, stored, facts.failed);
    StoreSamples(database, stored, facts.samples, known);
}

/// In PostgreSQL the uploads of one agent wait for each other: they change the same rows. SQLite has one writer anyway.
void LockAgent(Database& database, std::string_view agent) {
    if (database.kind() == DatabaseKind::postgresql)
        Statement(database,
                  "SELECT pg_advisory_xact_lock_shared(1263946819), pg_advisory_xact_lock(1263946818, hashtext(?))",
                  agent)
            .Step();
}

struct OldDelivery {
    std::int64_t number;
    std::string agent;
    std::int64_t time;
};

void CompleteRecord(Database& database, const OldDelivery& delivery, std::int64_t number, const RecordText& text) {
    RecordFacts facts = FactsOf(delivery.agent, text, delivery.time);
    SettleFuture({&facts}, delivery.time);
    const StoredRecord stored{number, SourceNumber(database, delivery.agent, facts), facts.collected};
    Execute(database, "UPDATE record SET source = ?2, collected = ?3, failed = ?4, reason = ?5 WHERE number = ?1",
            number, stored.source, facts.collected, std::int64_t{facts.failed}, facts.reason);
    UpdateSource(database, stored, facts.failed);
    KnownSeries known;
    StoreSamples(database, stored, facts.samples, known);
}

/// Completes its records, and gives their digest.
std::string CompleteDelivery(Database& database, const OldDelivery& delivery) {
    Digest digest;
    std::vector<std::int64_t> numbers;
    {
        Statement rows(database, "SELECT number FROM record WHERE delivery = ? ORDER BY position", delivery.number);
        while (rows.Step()) numbers.push_back(rows.number(0));
    }
    for (const std::int64_t number : numbers) {
        RecordText text;
        {
            Statement row(database, "SELECT file, text, is_json FROM record WHERE number = ?", number);
            row.Step();
            text = {row.text(0), row.text(1), row.number(2) != 0};
        }
        digest.Add(text);
        CompleteRecord(database, delivery, number, text);
    }
    return digest.Text();
}

}  // namespace

Delivery StoreDelivery(Store& store, std::string_view agent, std::string_view zip,
                       const std::vector<RecordText>& records) {
    Database& database = *store.database;
    const std::int64_t now = Now();
    Digest digest;
    std::vector<FactualRecord> factual;
    std::size_t samples = 0;
    for (const RecordText& record : records) {
        digest.Add(record);
        factual.push_back({record, FactsOf(agent, record, now)});
        std::vector<Sample>& found = factual.back().facts.samples;
        samples += found.size();
        if (samples > maxDeliverySamples) found = {};
    }
    std::vector<RecordFacts*> facts;
    for (FactualRecord& record : factual) facts.push_back(&record.facts);
    SettleFuture(facts, now);
    Transaction transaction(database, Sharing::withOthers);
    LockAgent(database, agent);
    const std::int64_t delivery = QueryNumber(database,
                                              "INSERT INTO delivery (agent, zip, time, digest) VALUES (?, ?, ?, ?) "
                                              "ON CONFLICT (agent, zip, digest) DO NOTHING RETURNING number",
                                              agent, zip, now, digest.Text());
    if (delivery == 0) return Delivery::repeated;
    KnownSeries known;
    for (std::int64_t position = 0; const FactualRecord& record : factual)
        StoreRecord(database, agent, delivery, position++, record, known);
    transaction.Commit();
    return Delivery::stored;
}

void KeepUploadsOut(Database& database) {
    if (database.kind() == DatabaseKind::postgresql)
        Statement(database, "SELECT pg_advisory_xact_lock(1263946819)").Step();
}

void CompleteDeliveries(Database& database) {
    std::vector<OldDelivery> deliveries;
    {
        Statement rows(database, "SELECT number, agent, time FROM delivery ORDER BY number");
        while (rows.Step()) deliveries.push_back({rows.number(0), rows.text(1), rows.number(2)});
    }
    for (const OldDelivery& delivery : deliveries)
        Execute(database, "UPDATE delivery SET digest = ?2 WHERE number = ?1", delivery.number,
                CompleteDelivery(database, delivery));
}

}  // namespace kv::lab
