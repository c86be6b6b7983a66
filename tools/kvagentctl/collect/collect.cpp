// kvagentctl collect: each record of a plan once, shown and not sent.
#include <algorithm>
#include <fmt/format.h>

#include "commandline/run.h"
#include "platform/console_tool.h"
#include "platform/process.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/collect/collected_record.h"
#include "tools/kvagentctl/collect/planned_records.h"
#include "tools/kvagentctl/collect/script_errors.h"
#include "tools/kvagentctl/json_text.h"
#include "tools/kvagentctl/log/log_entries.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::InLine;
using commandline::NotFoundError;

std::string TitleOf(const PlannedRecord& planned, const CollectedRecord& collected) {
    const std::string name = planned.names.empty() ? "(no name)" : planned.names.front();
    const std::string kind = planned.kind.empty() ? "unknown kind" : std::string(planned.kind);
    const std::string size = collected.text ? fmt::format("{} bytes", collected.bytes) : "no record";
    return InLine(fmt::format("== {}: workflow {}, {}, {} ms, {}{}", name, planned.workflow, kind,
                              collected.milliseconds, size, collected.isFailure ? ", FAILED" : ""));
}

void PrintRecord(const PlannedRecord& planned, const CollectedRecord& collected) {
    fmt::print("{}\n", TitleOf(planned, collected));
    if (collected.text && !collected.text->empty()) {
        const JsonPtr json = ParsedJson(*collected.text);
        const std::string text = json ? TextOfJson(json.get()) : *collected.text;
        PrintText(text);
        if (!text.ends_with('\n')) fmt::print("\n");
        if (!collected.remark.empty()) fmt::print("   remark: {}\n", InLine(collected.remark));
    }
    for (const std::string& line : collected.errors) fmt::print("   stderr: {}\n", InLine(line));
    for (const std::string& line : collected.lines) fmt::print("   log: {}\n", ReadableEntry(line));
    fmt::print("\n");
    commandline::FlushOutput();
}

/// False when it was interrupted.
bool HasPrinted(const PlannedRecord& planned, const CollectedRecord& collected) {
    try {
        PrintRecord(planned, collected);
        return true;
    } catch (const Interrupted&) {
        return false;
    }
}

json_object* JsonTexts(const std::vector<std::string>& texts) {
    json_object* list = json_object_new_array();
    for (const std::string& text : texts) json_object_array_add(list, JsonText(text));
    return list;
}

json_object* JsonOf(const PlannedRecord& planned, const CollectedRecord& collected) {
    json_object* object = json_object_new_object();
    json_object_object_add(object, "names", JsonTexts(planned.names));
    json_object_object_add(object, "workflow", JsonText(planned.workflow));
    json_object_object_add(object, "kind", JsonText(std::string(planned.kind)));
    json_object_object_add(object, "failed", json_object_new_boolean(collected.isFailure));
    json_object_object_add(object, "milliseconds", json_object_new_uint64(collected.milliseconds));
    json_object_object_add(object, "bytes", json_object_new_uint64(collected.bytes));
    JsonPtr record = collected.text ? ParsedJson(*collected.text) : JsonPtr(nullptr, json_object_put);
    json_object_object_add(object, "record", record || !collected.text ? record.release() : JsonText(*collected.text));
    json_object_object_add(object, "stderr", JsonTexts(collected.errors));
    json_object_object_add(object, "remark", collected.remark.empty() ? nullptr : JsonText(collected.remark));
    json_object_object_add(object, "log", JsonTexts(collected.lines));
    return object;
}

/// From now on an interrupt ends the wait for a script, which is ended then as one that takes too long.
void LetInterruptsEndScripts() {
    static constexpr std::uint32_t step = 100;  // milliseconds between two looks
    auto& operations = platform::CurrentOperations<platform::ProcessOperations>();
    operations.WaitForSingleObject = [wait = operations.WaitForSingleObject](platform::ProcessHandle process,
                                                                             std::uint32_t milliseconds) {
        platform::Error result = platform::error::waitTimeout;
        do {
            if (platform::WasInterrupted()) return platform::error::processAborted;
            const std::uint32_t next = std::min(milliseconds, step);
            result = wait(process, next);
            milliseconds -= next;
        } while (result == platform::error::waitTimeout && milliseconds > 0);
        return result;
    };
}

/// Collects and prints records; the number of those that failed. An interrupt ends it, and the folder with the data of
/// the record at hand goes.
std::size_t CollectAll(const std::vector<PlannedRecord>& records, bool asJson) {
    constexpr int interrupted = 130;  // as shells number the end by Ctrl-C
    platform::WatchForInterrupt();
    const platform::TemporaryFolder folder;
    ScriptErrors errors(folder.path());
    LetInterruptsEndScripts();
    const JsonPtr list(json_object_new_array(), json_object_put);
    std::size_t failed = 0;
    std::size_t done = 0;
    for (; done < records.size(); ++done) {
        const CollectedRecord collected = Collect(records[done], folder.path(), errors);
        if (platform::WasInterrupted()) break;
        if (collected.isFailure) ++failed;
        if (asJson)
            json_object_array_add(list.get(), JsonOf(records[done], collected));
        else if (!HasPrinted(records[done], collected))
            break;
    }
    if (asJson) fmt::print("{}\n", TextOfJson(list.get()));
    if (done == records.size()) return failed;
    fmt::print(stderr, "kvagentctl: interrupted after {} of {} records\n", done, records.size());
    throw commandline::ExitWith{interrupted};
}

void Run(const Given& given) {
    const bool asJson = Has(given, "--json");
    const platform::Error failure = ReadSettings();
    const std::vector<HashTablePtr> plans = ReadPlans(given, failure);
    std::vector<PlannedRecord> records;
    for (const HashTablePtr& plan : plans) {
        const std::vector<PlannedRecord> more = RecordsOf(plan.get());
        records.insert(records.end(), more.begin(), more.end());
    }
    if (records.empty())
        throw NotFoundError("the plan has no records: it needs WorkFlows, a list of workflows with recordSetName");
    if (Has(given, "--record")) KeepNamed(records, commandline::NeededValue(given, "--record"));
    const auto isScript = [](const PlannedRecord& planned) { return planned.kind == "script"; };
    if (failure != platform::error::success && std::any_of(records.begin(), records.end(), isScript))
        fmt::print(stderr, "scripts are not found: {}\n", SettingsFailureText(failure));
    const std::size_t failed = CollectAll(records, asJson);
    if (failed > 0) throw std::runtime_error(fmt::format("{} of {} records failed", failed, records.size()));
}

constexpr commandline::Word words[] = {{"PLAN", "a plan's file; default: the agent's own", true}};

constexpr commandline::Option options[] = {
    {"--record", "NAME",
     "only the records of that name: a WMI record's or script's Name, a script's file, or a POLL_ID, "
     "DEVICE_NAME, AGENT_KEY or POLICY_NAME of SNMP"},
    {"--slaves", "", "the plans of the agent's slaves, too"},
    {"--json", "",
     "prints an array of objects with names, workflow, kind, failed, milliseconds, bytes, record, remark, stderr and "
     "log"},
};

}  // namespace

const commandline::Command& CollectVerb() {
    static const commandline::Command verb{
        "collect",
        "Collects each record of a plan once, and prints it. Nothing is sent, and no file, number or setting of the "
        "agent changes; scripts run as they would for the agent, as this user. Beneath a record stand a remark where "
        "its server may not understand it, what its script wrote to standard error, which the agent drops, and what "
        "the "
        "agent would log. Intervals do not count. Exit code 1 if a record fails (a script that cannot be started does, "
        "one that ends with another exit code than 0 does not), 3 without a plan or a record of that name, 130 when it "
        "is interrupted.",
        words, options, Run};
    return verb;
}

}  // namespace kv::control
