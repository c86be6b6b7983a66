// kvlab records.
#include "lab/page/records.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "commandline/run.h"
#include "lab/commands/command_line.h"
#include "lab/commands/known_names.h"
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
    bool follow = false;

    bool Has(const HistoryRecord& record) const {
        return record.collected >= range.from && record.collected <= range.to;
    }
};

Wanted WantedOf(const Given& given) {
    Wanted wanted;
    wanted.follow = Has(given, "--follow");
    wanted.filter = FilterOf(given);
    const std::int64_t now = Now();
    if (Has(given, "--since")) wanted.range.from = MomentOf("--since", Value(given, "--since"), now);
    if (Has(given, "--until")) wanted.range.to = MomentOf("--until", Value(given, "--until"), now);
    if (wanted.range.from > wanted.range.to) throw UsageError("--since takes a time before that of --until");
    return wanted;
}

void PrintText(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        throw std::runtime_error("cannot write to standard output");
}

/// Hands out the wanted records in the order of their numbers, some at a time; when they are followed without an end.
template <class Print>
void ForEach(Store& store, const Wanted& wanted, const Print& print) {
    bool isEmpty = true;
    const NumberRange numbers = wanted.follow ? NumberRange{1, INT64_MAX} : ReadNumbers(store, wanted.range);
    std::int64_t after = numbers.first - 1;
    while (after < numbers.last) {
        std::vector<HistoryRecord> records = ReadHistoryAfter(store, wanted.filter, after, recordsTogether);
        if (records.empty() && !wanted.follow) break;
        if (records.empty()) std::this_thread::sleep_for(followPause);
        if (!records.empty()) after = records.back().number;
        std::erase_if(records, [&](const HistoryRecord& record) { return !wanted.Has(record); });
        print(records);
        commandline::FlushOutput();
        isEmpty = isEmpty && records.empty();
    }
    if (!isEmpty) return;
    PrintNote(wanted.filter.failedOnly ? "no failed record fits" : "no record fits" + NewestText(store, wanted.filter));
}

void PrintLines(Store& store, const std::vector<HistoryRecord>& records) {
    for (const HistoryRecord& record : records)
        if (const std::optional<RecordText> content = ReadContent(store, record.number))
            PrintLine(
                RecordLine({record.number, record.source.agent, record.zip, record.accepted, *content, record.bytes}));
}

/// Appends records to a JSON array that holds some already, or is empty.
void PrintItems(Store& store, const std::vector<HistoryRecord>& records, bool& isEmpty) {
    for (const HistoryRecord& record : records) {
        const std::optional<RecordText> content = ReadContent(store, record.number);
        if (!content) continue;  // pruned meanwhile
        PrintText((isEmpty ? "\n" : ",\n") + RecordJson(record, *content));
        isEmpty = false;
    }
}

void PrintJson(Store& store, const Wanted& wanted) {
    bool isEmpty = true;
    PrintText("{\"records\":[");
    ForEach(store, wanted, [&](const auto& records) { PrintItems(store, records, isEmpty); });
    PrintText("]}\n");
}

void PrintCsv(Store& store, const Wanted& wanted) {
    PrintText(TableCsv(RecordTable({})));
    ForEach(store, wanted, [](const auto& records) { PrintText(CsvRows(RecordTable(records))); });
}

void RunRecords(const Given& given) {
    if (Has(given, "--follow") + Has(given, "--csv") + Has(given, "--json") > 1)
        throw UsageError("only one of --follow, --csv and --json can be given");
    Store store = OpenExisting(given);
    const Wanted wanted = WantedOf(given);
    // Who follows may wait for what has never come.
    if (!wanted.follow) RequireKnown(store, wanted.filter);
    if (Has(given, "--csv")) return PrintCsv(store, wanted);
    if (Has(given, "--json")) return PrintJson(store, wanted);
    ForEach(store, wanted, [&](const auto& records) { PrintLines(store, records); });
}

constexpr Option recordsOptions[] = {
    databaseOption,
    {"--agent", "KEY", "only this agent's"},
    {"--device", "KEY", "only those of this polled device or slave; '' stands for the agents themselves"},
    {"--name", "NAME", "only those of this name; '' stands for records without a name"},
    {"--failed", "", "only those that failed"},
    {"--since", "TIME",
     "collected since then: 15m, 2h or 7d ago, or a time in UTC such as 13:10 or '2026-11-27 13:10'"},
    {"--until", "TIME", "collected until then"},
    {"--follow", "", "go on with new ones as they arrive, until interrupted"},
    {"--csv", "", "as CSV, with when each was collected and why it failed, without its values"},
    {"--json", "", "the same as JSON, with the values"},
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
