// kvagentctl collect: each record of a plan once, shown and not sent.
#include "collection/collect.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <optional>

#include "collection/record_file.h"
#include "collection/record_members.h"
#include "commandline/run.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/open_file.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "jsontext/strict_json.h"
#include "platform/clock.h"
#include "platform/console_tool.h"
#include "platform/near_name.h"
#include "platform/process.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/json_text.h"
#include "tools/kvagentctl/log/log_entries.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/plan_neighbour.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/script_errors.h"
#include "tools/kvagentctl/script_file.h"
#include "tools/kvagentctl/verbs.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::InLine;
using commandline::NotFoundError;
using platform::Utf8FromWide;
using platform::WideFromUtf8;

constexpr std::size_t largestRecord = std::size_t{1} << 30;  // bytes; a script's record is cut at half of that

/// A record of a plan, which refers to the plan's document.
struct PlannedRecord {
    const HashTable* record = nullptr;
    std::string_view kind;
    std::string workflow;
    std::vector<std::string> names;  // what people may call it by, the best one first
};

/// What a record came to.
struct CollectedRecord {
    std::optional<std::string> text;  // UTF-8; absent when no record was written
    std::size_t bytes = 0;            // of its file
    std::uint64_t milliseconds = 0;
    std::vector<std::string> lines;   // what the agent would log
    std::vector<std::string> errors;  // what a script has written to standard error
    std::string remark;               // what its server may not understand in the text
    bool isFailure = false;
};

// --- the plan

/// The texts of members, those that are there.
std::vector<std::string> TextsOf(const HashTable* record, std::initializer_list<std::u16string_view> keys) {
    std::vector<std::string> texts;
    for (const std::u16string_view key : keys) {
        const OptionalText text = MemberText(record, key);
        if (text && !text->empty()) texts.push_back(Utf8FromWide(*text));
    }
    return texts;
}

std::vector<std::string> NamesOf(const HashTable* record, std::string_view kind) {
    if (kind == "WMI") return TextsOf(record, {u"Name"});
    if (kind == "script") return TextsOf(record, {u"Name", u"script"});
    return TextsOf(record, {u"POLL_ID", u"DEVICE_NAME", u"AGENT_KEY", u"POLICY_NAME"});
}

void TakeRecords(const HashTable* workflow, std::vector<PlannedRecord>& records) {
    const Vector* list = GetHashVector(workflow, u"recordSetName");
    if (!list) return;
    const std::string name = Utf8FromWide(MemberText(workflow, u"wfname").value_or(u""));
    for (const VectorElement* element = list->head; element; element = element->next) {
        if (element->type != ValueType::table) continue;
        const auto* record = reinterpret_cast<const HashTable*>(element->value);
        const std::string_view kind = KindOfRecord(record);
        records.push_back({record, kind, name, NamesOf(record, kind)});
    }
}

/// The records of all lists of workflows in a document.
std::vector<PlannedRecord> RecordsOf(const HashTable* document) {
    std::vector<PlannedRecord> records;
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i]; ++i) {
        const Vector* workflows = GetHashVector(document, keys[i]);
        for (const VectorElement* element = workflows ? workflows->head : nullptr; element; element = element->next) {
            if (element->type == ValueType::table)
                TakeRecords(reinterpret_cast<const HashTable*>(element->value), records);
        }
    }
    return records;
}

HashTablePtr ReadPlan(std::u16string_view path, const std::string& name) {
    PlanFile plan = ReadPlanFile(path);
    if (!plan.document) throw std::runtime_error(fmt::format("{}: {}", name, plan.failure));
    if (!plan.notice.empty()) fmt::print(stderr, "{}: {}\n", name, InLine(plan.notice));
    for (const RepeatedKey& member : plan.repeated)
        fmt::print(stderr, "{}, line {}: {} is not used: it stands again in line {}\n", name, member.line,
                   InLine(Utf8FromWide(member.key)), member.lastLine);
    return std::move(plan.document);
}

/// Fills in what collecting needs of the agent's settings; they are only read. The failure to read where the agent is.
platform::Error ReadSettings() {
    OptionalText install;
    const platform::Error failure = GetKVAgentInstallDir(install);
    if (install) agentState.gv_ocAgentBinPath = *install + u"monitoring\\bin\\";
    OptionalText key;
    agentState.gv_agentKey.Publish(GetOCAgentKey(key) == platform::error::success && key ? *key : u"HUBCENTER");
    static_cast<void>(GetCustomerName(agentState.gv_custID));
    return failure == platform::error::success && !install ? platform::error::fileNotFound : failure;
}

/// What a failure of ReadSettings means.
std::string SettingsFailureText(platform::Error failure) {
    return IsGone(failure) && EmptyRegistryText().empty() ? "the setting KVAgentInstallDir is missing"
                                                          : RegistryFailureText(failure);
}

/// The plans to collect: the given one, or the agent's own and, if asked for, those of its slaves. failure: of
/// ReadSettings.
std::vector<HashTablePtr> ReadPlans(const Given& given, platform::Error failure) {
    const std::string named = Has(given, "PLAN") ? commandline::NeededValue(given, "PLAN") : "";
    std::vector<HashTablePtr> plans;
    if (!named.empty()) {
        if (!MayExist(WideFromUtf8(named))) throw NotFoundError(fmt::format("there is no file {}", named));
        RefuseDirectory(named);
        const NamedPlan file(named);
        plans.push_back(ReadPlan(file.path(), named));
        return plans;
    }
    const std::string hint = SettingsFailureText(failure) + "; name a plan: kvagentctl collect PLAN";
    if (IsGone(failure)) throw NotFoundError(hint);
    if (failure != platform::error::success) throw std::runtime_error(hint);
    const std::u16string bin = *agentState.gv_ocAgentBinPath;
    const std::u16string own = ConcatStrings(bin, conf_path::ownPlan);
    if (!MayExist(own)) {
        const std::string neighbour = PlanNeighbourHint(own);
        throw NotFoundError(fmt::format("the agent has no plan: {} does not exist; {}", NativeName(own),
                                        neighbour.empty() ? "name one: kvagentctl collect PLAN" : neighbour));
    }
    plans.push_back(ReadPlan(own, NativeName(own)));
    if (!Has(given, "--slaves")) return plans;
    for (const SlavePlan& plan : PlansOfSlaves(bin)) plans.push_back(ReadPlan(plan.path, NativeName(plan.path)));
    return plans;
}

bool IsNamed(const PlannedRecord& record, const std::string& name) {
    return std::any_of(record.names.begin(), record.names.end(), [&](const std::string& known) {
        return CompareIgnoreCase(WideFromUtf8(known), WideFromUtf8(name)) == 0;
    });
}

/// Keeps the records of a name. NotFoundError with all names when no record has it.
void KeepNamed(std::vector<PlannedRecord>& records, const std::string& name) {
    std::vector<std::string> known;
    for (const PlannedRecord& record : records) {
        for (const std::string& one : record.names) {
            if (std::find(known.begin(), known.end(), one) == known.end()) known.push_back(one);
        }
    }
    std::erase_if(records, [&](const PlannedRecord& record) { return !IsNamed(record, name); });
    if (!records.empty()) return;
    constexpr std::size_t mostNames = 30;  // of a message
    const std::size_t shown = std::min(known.size(), mostNames);
    const std::string more = shown < known.size() ? fmt::format(" and {} more", known.size() - shown) : "";
    known.resize(shown);
    throw NotFoundError(
        fmt::format("no record of the plan is called {}; there are: {}{}", name, fmt::join(known, ", "), more));
}

// --- collecting

/// The record's file in a folder, which is taken out of it.
void TakeRecordFile(const std::u16string& folder, CollectedRecord& collected) {
    const FileSearch search(folder + u"\\*.txt");
    if (!search.hasFile()) return;
    const std::u16string path = folder + u"\\" + search.file.fileName;
    std::string bytes;
    if (ReadWholeFile(path, bytes, largestRecord) != platform::error::success) return;
    collected.bytes = bytes.size();
    collected.text = Utf8FromWide(TextFromUtf16LittleEndian(bytes));
    platform::Files().DeleteFileW(path);
}

/// Null for a text that is not JSON.
JsonPtr ParsedJson(const std::string& text) {
    if (!StrictJsonFault(text).empty()) return {nullptr, json_object_put};
    return {json_tokener_parse(text.c_str()), json_object_put};
}

/// What is odd about the text that a script printed; the agent sends it as it is. Empty when nothing is.
std::string RemarkOn(const PlannedRecord& planned, const std::string& text) {
    if (std::string fault = StrictJsonFault(text); !fault.empty())
        return "it is not JSON, and goes out as it is: " + std::move(fault);
    const JsonPtr json = ParsedJson(text);
    if (!json_object_is_type(json.get(), json_type_object)) return "it is not an object, which a server expects";
    std::vector<std::string> missing{"AGENTKEY", "DATACOLLECTTIME", "ERRORMSG",
                                     Utf8FromWide(MemberText(planned.record, u"Name").value_or(u""))};
    std::erase_if(missing, [&json](const std::string& name) {
        return name.empty() || json_object_object_get_ex(json.get(), name.c_str(), nullptr);
    });
    return missing.empty() ? "" : fmt::format("it lacks {}, which a server expects", fmt::join(missing, ", "));
}

bool HasText(json_object* record, const char* key, std::string_view beginning) {
    json_object* member = nullptr;
    if (!json_object_is_type(record, json_type_object) || !json_object_object_get_ex(record, key, &member))
        return false;
    const char* text = json_object_get_string(member);
    return text != nullptr && std::string_view(text).starts_with(beginning);
}

/// Whether the log says of a script that it was not run: by the agent, or by the shell, which has two exit codes for
/// that.
bool WasNotRun(const std::vector<std::string>& log) {
    constexpr std::string_view signs[] = {" is not run", " failed: there is no file ", " failed: Error Code : 126",
                                          " failed: Error Code : 127"};
    return std::any_of(log.begin(), log.end(), [&signs](const std::string& line) {
        return std::any_of(std::begin(signs), std::end(signs),
                           [&line](std::string_view sign) { return line.find(sign) != std::string::npos; });
    });
}

/// Whether a script is meant to have a record.
bool WantsRecord(const PlannedRecord& planned) {
    return planned.kind != "script" || CompareIgnoreCase(MemberText(planned.record, u"response_needed"), u"true") == 0;
}

/// What keeps a script from running as it is meant to; empty when nothing is known to, and when it seems to have run.
std::string ScriptFault(const PlannedRecord& planned, const CollectedRecord& collected) {
    constexpr std::string_view signs[] = {" failed: Error Code : 2", " failed: Error Code : 126",
                                          " failed: Error Code : 127"};
    const bool hasSign = std::any_of(collected.lines.begin(), collected.lines.end(), [&signs](const std::string& line) {
        return std::any_of(std::begin(signs), std::end(signs),
                           [&line](std::string_view sign) { return line.ends_with(sign); });
    });
    if (planned.kind != "script" || (!hasSign && collected.errors.empty())) return "";
    const std::u16string path = agentState.gv_ocAgentBinPath.value_or(u"") + u"..\\conf\\scripts\\" +
                                MemberText(planned.record, u"script").value_or(u"");
    const std::optional<platform::FilePermissions> permissions = platform::GetFilePermissions(path);
    const std::string fault = permissions ? FirstLineFault(path, permissions->isExecutable) : "";
    return fault.empty() ? "" : fmt::format("the script {} {}", NativeName(path), fault);
}

CollectedRecord Collect(const PlannedRecord& planned, const std::u16string& folder, ScriptErrors& errors) {
    CollectedRecord collected;
    const std::uint64_t begin = platform::Clock().GetTickCount64();
    const std::uint64_t failedBefore = agentHealth.queriesFailed;
    {
        const LogLines log([&](std::string_view line) {
            const std::string_view told = WithoutRoutine(line);
            if (!told.empty()) collected.lines.emplace_back(told);
        });
        const RecordDetour detour(folder);
        RunGuarded("CollectRecord", [&] { CollectRecord(planned.record); });
    }
    collected.milliseconds = platform::Clock().GetTickCount64() - begin;
    TakeRecordFile(folder, collected);
    collected.errors = errors.Take();
    if (std::string fault = ScriptFault(planned, collected); !fault.empty())
        collected.lines.push_back(std::move(fault));
    if (planned.kind.empty()) {
        collected.lines.emplace_back("it has neither wmiQuery nor script nor PROTOCOL, and is skipped");
        collected.isFailure = true;
    } else if (!collected.text) {
        collected.isFailure = WantsRecord(planned) || WasNotRun(collected.lines);
        if (!collected.isFailure) collected.lines.emplace_back("response_needed is not true: the script has no record");
    } else if (collected.text->empty()) {
        // A script that has failed is told of already.
        collected.isFailure = agentHealth.queriesFailed != failedBefore;
        if (!collected.isFailure)
            collected.lines.emplace_back("the script printed nothing: the server gets an empty record");
    } else {
        if (planned.kind == "script") collected.remark = RemarkOn(planned, *collected.text);
        const JsonPtr json = ParsedJson(*collected.text);
        collected.isFailure = HasText(json.get(), "ERRORMSG", "FAILED") || HasText(json.get(), "STATUS", "FAILURE");
    }
    return collected;
}

// --- printing

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
     "prints an array of objects with names, workflow, kind, failed, milliseconds, bytes, record, stderr and log"},
};

}  // namespace

const commandline::Command& CollectVerb() {
    static const commandline::Command verb{
        "collect",
        "Collects each record of a plan once, and prints it. Nothing is sent, and no file, number or setting of the "
        "agent changes; scripts run as they would for the agent, as this user. Beneath a record stands what its script "
        "wrote to standard error, which the agent drops, and "
        "what the agent would log. Intervals do not count. Exit code 1 if a record fails (a script that cannot be "
        "started does, "
        "one that ends with another exit code than 0 does not), 3 without a plan or a record of that name, 130 when it "
        "is interrupted.",
        words, options, Run};
    return verb;
}

}  // namespace kv::control
