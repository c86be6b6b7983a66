// kvlab records.
#include "lab/page/records.h"

#include <chrono>
#include <thread>

#include "commandline/run.h"
#include "lab/commands/command_line.h"
#include "lab/commands/moment.h"
#include "lab/page/table.h"
#include "lab/store/history.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr auto followPause = std::chrono::milliseconds(250);
constexpr std::int64_t recordsTogether = 500;

struct Wanted {
    Filter filter;
    Range range{INT64_MIN, INT64_MAX};

    bool Has(const HistoryRecord& record) const {
        return record.collected >= range.from && record.collected <= range.to;
    }
};

std::optional<std::string> GivenText(const Given& given, const char* option) {
    return Has(given, option) ? std::optional(Value(given, option)) : std::nullopt;
}

Wanted WantedOf(const Given& given) {
    Wanted wanted;
    wanted.filter = {GivenText(given, "--agent"), GivenText(given, "--device"), GivenText(given, "--name"),
                     Has(given, "--failed")};
    if (wanted.filter.agent == "") wanted.filter.agent.reset();  // as a script may have it: all agents
    const std::int64_t now = Now();
    if (Has(given, "--since")) wanted.range.from = MomentOf("--since", Value(given, "--since"), now);
    if (Has(given, "--until")) wanted.range.to = MomentOf("--until", Value(given, "--until"), now);
    if (wanted.range.from > wanted.range.to) throw UsageError("--since takes a time before that of --until");
    return wanted;
}

/// The wanted records with a number above `after`, which then is that of the last one that was looked at; absent when
/// there is nothing more to look at.
std::optional<std::vector<HistoryRecord>> NextRecords(Store& store, const Wanted& wanted, std::int64_t& after) {
    std::vector<HistoryRecord> records = ReadHistoryAfter(store, wanted.filter, after, recordsTogether);
    if (records.empty()) return std::nullopt;
    after = records.back().number;
    std::erase_if(records, [&](const HistoryRecord& record) { return !wanted.Has(record); });
    return records;
}

void PrintRecord(Store& store, const HistoryRecord& record) {
    const std::optional<RecordText> content = ReadContent(store, record.number);
    if (content)
        PrintLine(
            RecordLine({record.number, record.source.agent, record.zip, record.accepted, *content, record.bytes}));
}

void PrintRecords(Store& store, const Wanted& wanted, bool follow) {
    std::int64_t after = 0;
    while (true) {
        const auto records = NextRecords(store, wanted, after);
        if (!records && !follow) return;
        if (!records) std::this_thread::sleep_for(followPause);
        for (const HistoryRecord& record : records.value_or(std::vector<HistoryRecord>())) PrintRecord(store, record);
        commandline::FlushOutput();
    }
}

std::vector<HistoryRecord> AllRecords(Store& store, const Wanted& wanted) {
    std::vector<HistoryRecord> all;
    std::int64_t after = 0;
    while (auto records = NextRecords(store, wanted, after))
        all.insert(all.end(), std::make_move_iterator(records->begin()), std::make_move_iterator(records->end()));
    return all;
}

void RunRecords(const Given& given) {
    const bool follow = Has(given, "--follow");
    const bool asCsv = Has(given, "--csv");
    const bool asJson = Has(given, "--json");
    if (follow + asCsv + asJson > 1) throw UsageError("only one of --follow, --csv and --json can be given");
    Store store = OpenExisting(given);
    const Wanted wanted = WantedOf(given);
    if (!follow && wanted.filter.agent && !AgentExists(store, *wanted.filter.agent))
        throw NotFoundError("there is no agent with the key " + *wanted.filter.agent);
    if (!asCsv && !asJson) return PrintRecords(store, wanted, follow);
    const Table table = RecordTable(AllRecords(store, wanted));
    std::fputs((asCsv ? TableCsv(table) : TableJson(table)).c_str(), stdout);
}

constexpr Option recordsOptions[] = {
    databaseOption,
    {"--agent", "KEY", "only this agent's"},
    {"--device", "KEY", "only those of this polled device or slave; '' stands for the agents themselves"},
    {"--name", "NAME", "only those of this name; '' stands for records without a name"},
    {"--failed", "", "only those that failed"},
    {"--since", "TIME", "collected since then: 15m, 2h or 7d ago, or a time in UTC such as '2026-11-27 12:00'"},
    {"--until", "TIME", "collected until then"},
    {"--follow", "", "go on with new ones as they arrive, until interrupted"},
    {"--csv", "", "as CSV, with when each was collected and why it failed, without its values"},
    {"--json", "", "the same as JSON"},
};

constexpr Command commands[] = {
    {"records",
     "Prints the accepted records in the order of their arrival. One a line, with tabs between: number, agent, zip, "
     "record "
     "file, time of arrival, values.",
     {},
     recordsOptions,
     RunRecords},
};

}  // namespace

std::span<const Command> RecordCommands() { return commands; }

}  // namespace kv::lab
