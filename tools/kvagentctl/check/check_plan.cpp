// What kvagentctl check says of a plan and its workflows.
#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <vector>

#include "collection/plan_members.h"
#include "collection/record_members.h"
#include "foundation/file_utils.h"
#include "foundation/text.h"
#include "platform/near_name.h"
#include "platform/utf.h"
#include "queryconf/query_config.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/check/plan_text.h"
#include "tools/kvagentctl/plan_lists.h"
#include "tools/kvagentctl/readable_file.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

constexpr std::int32_t longInterval = 31 * 24 * 60;  // minutes; more is likely to be seconds by mistake

constexpr const char* wantedInterval = "give whole minutes from 1, as in \"interval\": 5";

void CheckInterval(Findings& findings, const std::string& where, const HashTable* workflow) {
    const HashEntry* const interval = GetHashEntry(workflow, u"interval");
    const auto minutes = static_cast<std::int32_t>(interval->value);
    if (interval->type == ValueType::number)
        findings.Warn(where,
                      fmt::format("interval is written with a fraction or an exponent, and {} is taken", minutes),
                      wantedInterval);
    if (minutes > longInterval)
        findings.Warn(where, fmt::format("has an interval of {} minutes, which is {} days", minutes, minutes / 1440),
                      "interval is in minutes");
}

/// The fault of a workflow that cannot run, with the interval that it gives, and what to do.
void TellWorkflowFault(Findings& findings, const std::string& where, const HashTable* workflow, std::string fault) {
    const bool isOfInterval = fault.find("interval") != std::string::npos;
    const HashEntry* const interval = GetHashEntry(workflow, u"interval");
    if (isOfInterval && interval) {
        const OptionalText text = MemberText(workflow, u"interval");
        if (interval->type == ValueType::text)
            fault += fmt::format(" (\"{}\")", Utf8FromWide(*text));
        else if (text)
            fault += fmt::format(" ({})", Utf8FromWide(*text));
        else if (interval->type == ValueType::other)
            fault += " (it exceeds 32 bits)";
    }
    findings.Error(where, fault + ": it is left out",
                   isOfInterval ? wantedInterval : "put its records into an array recordSetName");
}

void CheckRecords(Findings& findings, PlanContext& context, const std::string& where, const Vector* records) {
    if (!records->head) findings.Warn(where, "has no records", "put records into recordSetName");
    int index = 0;
    for (const VectorElement* element = records->head; element; element = element->next, ++index) {
        const std::string place = fmt::format("{}, record [{}]", where, index);
        if (element->type == ValueType::table)
            CheckRecord(findings, context, place, reinterpret_cast<const HashTable*>(element->value));
        else
            findings.Error(place, "is not an object and is skipped");
    }
}

void CheckWorkflow(Findings& findings, PlanContext& context, const std::string& where, const VectorElement* element) {
    const char* const fault = WorkflowFault(element);
    if (element->type != ValueType::table) return findings.Error(where, fmt::format("{}: it is left out", fault));
    const auto* const workflow = reinterpret_cast<const HashTable*>(element->value);
    CheckMemberNames(findings, where, workflow, workflowMembers);
    if (fault)
        TellWorkflowFault(findings, where, workflow, fault);
    else
        CheckInterval(findings, where, workflow);
    if (const Vector* const records = GetHashVector(workflow, u"recordSetName"))
        CheckRecords(findings, context, where, records);
}

void CheckWorkflows(Findings& findings, PlanContext& context, const PlanList& list) {
    if (!list.workflows->head) findings.Warn(list.name, "is empty: nothing is collected");
    int index = 0;
    for (const VectorElement* element = list.workflows->head; element; element = element->next, ++index) {
        std::string where = fmt::format("workflow [{}]", index);
        if (list.name != Utf8FromWide(ownWorkflowsKey)) where.insert(0, list.name + ", ");
        const auto* const workflow = reinterpret_cast<const HashTable*>(element->value);
        const char16_t* const name = element->type == ValueType::table ? GetHashText(workflow, u"wfname") : nullptr;
        if (name) where += fmt::format(" \"{}\"", Utf8FromWide(name));
        CheckWorkflow(findings, context, where, element);
    }
}

/// WorkFlows, if that was probably meant by the name of a member; else empty.
std::string MeantList(std::u16string_view name) {
    return Utf8FromWide(platform::NearestName(name, {&ownWorkflowsKey, 1}));
}

/// A list under another name than the agent asks for. Some park workflows under one, and they run.
void TellOtherList(Findings& findings, const PlanList& list) {
    const std::string where = "member " + list.name;
    const std::u16string name = platform::WideFromUtf8(list.name);
    const std::string meant = MeantList(name);
    if (list.runnable == 0)
        return findings.Warn(where, "is a list in which no workflow can run: the agent leaves out what it holds",
                             meant.empty() ? "" : fmt::format("did you mean {}?", meant));
    constexpr const char* what =
        "its workflows run all the same: the agent runs each list at the top, whatever its name";
    constexpr const char* next = "take it out of the file, and start the agent again";
    if (!meant.empty()) return findings.Error(where, what, fmt::format("did you mean {}? Else {}", meant, next));
    if (name.starts_with(slaveWorkflowsKey))
        findings.Warn(where, what, fmt::format("if it is not for a slave, {}", next));
    else
        findings.Error(where, what, next);
}

/// The members at the top that are not lists.
void CheckOtherMembers(Findings& findings, const HashTable* document) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i]; ++i) {
        const std::u16string_view key = keys[i];
        if (GetHashVector(document, key)) continue;
        const std::string where = "member " + Utf8FromWide(key);
        const std::string meant = MeantList(key);
        if (key == ownWorkflowsKey || key.starts_with(slaveWorkflowsKey))
            findings.Error(where, "is not an array: it is left out");
        else
            findings.Warn(where, meant.empty() ? "is not a list of workflows that the agent knows"
                                               : fmt::format("did you mean {}?", meant));
    }
}

void CheckLists(Findings& findings, const HashTable* document, const std::vector<PlanList>& lists) {
    PlanContext context;
    CheckOtherMembers(findings, document);
    for (const PlanList& list : lists) {
        if (!list.isExpected) TellOtherList(findings, list);
        if (list.isExpected || list.objects > 0) CheckWorkflows(findings, context, list);
    }
    if (context.isQueryUnjudged)
        findings.Note("plan",
                      "queries were not judged, because this system tells what is wrong only when one is run: "
                      "kvagentctl collect runs them");
}

/// What a message says of the file whose name it begins with.
std::string WithoutName(std::string message, std::u16string_view path) {
    const std::string name = Utf8FromWide(path);
    if (!message.starts_with(name)) return message;
    return message.substr(std::min(message.find_first_not_of(": ", name.size()), message.size()));
}

void TellRepeatedMembers(Findings& findings, const std::string& where, const std::vector<RepeatedKey>& repeated) {
    for (const RepeatedKey& member : repeated) {
        const bool isList = member.key == u"recordSetName" || member.key.starts_with(ownWorkflowsKey);
        const std::string again = member.line == member.lastLine ? fmt::format("twice in line {}", member.line)
                                                                 : fmt::format("again in line {}", member.lastLine);
        findings.Error(fmt::format("{}, line {}", where, member.line),
                       fmt::format("{} stands {}, and only the last one counts", Utf8FromWide(member.key), again),
                       isList ? "put what is in both into one" : "take one out");
    }
}

/// Whether a name is another one without its first or last word: PORT of SNMP_PORT.
bool IsPartOf(std::u16string_view name, std::u16string_view whole) {
    if (name.size() + 1 >= whole.size()) return false;
    const std::size_t rest = whole.size() - name.size();
    return (whole[rest - 1] == u'_' && CompareIgnoreCase(whole.substr(rest), name) == 0) ||
           (whole[name.size()] == u'_' && CompareIgnoreCase(whole.substr(0, name.size()), name) == 0);
}

/// The absent member that was probably meant by an unknown name; empty when none resembles it, or several do.
std::u16string_view MeantMember(const HashTable* table, std::u16string_view name,
                                std::span<const std::u16string_view> known) {
    std::u16string_view meant = platform::NearestName(name, known);
    if (meant.empty()) {
        const auto isPart = [name](std::u16string_view whole) { return IsPartOf(name, whole); };
        const auto found = std::find_if(known.begin(), known.end(), isPart);
        if (found != known.end() && std::none_of(found + 1, known.end(), isPart)) meant = *found;
    }
    return ContainsHashKey(table, meant) ? std::u16string_view() : meant;
}

/// The escapes of a JSON text for characters beyond ASCII: how many there are, and the first.
struct WideEscapes {
    std::size_t count = 0;
    std::string first;
    std::size_t line = 0;  // of the first, from 1
};

WideEscapes FindWideEscapes(std::string_view json) {
    WideEscapes found;
    std::size_t line = 1;
    for (std::size_t at = 0; at < json.size(); ++at) {
        if (json[at] == '\n') ++line;
        if (json[at] != '\\' || ++at >= json.size() || json[at] != 'u') continue;
        const std::string_view digits = json.substr(at + 1, 4);
        unsigned number = 0;
        const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
        if (digits.size() < 4 || parsed.ptr != digits.data() + 4 || number < 0x80) continue;
        if (found.count++ > 0) continue;
        found.first = json.substr(at - 1, 6);
        found.line = line;
    }
    return found;
}

/// The agent reads such an escape as the bytes of its UTF-8, which is never what was meant.
void WarnOfEscapes(Findings& findings, const std::string& where, std::u16string_view path) {
    std::string bytes;
    if (ReadWholeFile(path, bytes) != platform::error::success) return;
    if (bytes.find('\0') != std::string::npos) bytes = Utf8FromWide(TextFromUtf16LittleEndian(bytes));
    const WideEscapes escapes = FindWideEscapes(bytes);
    if (escapes.count == 0) return;
    const std::string others = escapes.count > 1 ? fmt::format(" and {} more such escapes", escapes.count - 1) : "";
    findings.Warn(fmt::format("{}, line {}", where, escapes.line),
                  fmt::format("{}{}: the agent reads the bytes of the character's UTF-8 as characters of their own",
                              escapes.first, others),
                  "write the character itself");
}

}  // namespace

void CheckMemberNames(Findings& findings, const std::string& where, const HashTable* table,
                      std::span<const std::u16string_view> known, std::span<const std::u16string_view> passedOver) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(table);
    for (std::size_t i = 0; keys[i]; ++i) {
        const std::u16string_view key = keys[i];
        const auto isKey = [key](std::u16string_view name) { return name == key; };
        if (std::any_of(known.begin(), known.end(), isKey) || std::any_of(passedOver.begin(), passedOver.end(), isKey))
            continue;
        const std::u16string_view meant = MeantMember(table, key, known);
        if (meant.empty())
            findings.Note(where, fmt::format("the agent does not know the member {}", Utf8FromWide(key)));
        else
            findings.Warn(where, fmt::format("{}: did you mean {}?", Utf8FromWide(key), Utf8FromWide(meant)));
    }
}

void CheckPlan(Findings& findings, std::u16string_view path, const std::string& name, const OptionalText& owner) {
    const std::string where = "plan " + name;
    std::vector<std::string> lines;
    const LogLines log([&](std::string_view line) { lines.emplace_back(WithoutRoutine(line)); });
    if (const std::string fault = FileFault(path); !fault.empty()) return findings.Error(where, fault);
    const PlanFile plan = ReadPlanFile(path);
    for (const std::string& line : lines) findings.Warn(where, line);
    if (!plan.document) {
        std::string bytes;
        const bool isRead = ReadWholeFile(path, bytes) == platform::error::success;
        if (isRead) return findings.list.push_back(FaultOfPlanText(where, bytes, plan.failure));
        return findings.Error(where, plan.failure + ": the agent would refuse it");
    }
    if (!plan.notice.empty()) findings.Warn(where, plan.notice);
    TellRepeatedMembers(findings, where, plan.repeated);
    WarnOfEscapes(findings, where, path);
    lines.clear();
    const HashTable* const document = plan.document.get();
    const std::u16string slave = owner ? *owner : SlaveOf(document);
    const std::vector<PlanList> lists = ListsOf(document, slave);
    if (!IsUsablePlan(document, slave, path)) {
        for (const std::string& line : lines)
            findings.Error(where, WithoutName(line, path) + ": " + OutcomeOfUnusable(lists));
    }
    if (!slave.empty()) findings.Note(where, "is that of the slave " + Utf8FromWide(slave));
    CheckLists(findings, document, lists);
}

}  // namespace kv::control
