#include "tools/kvagentctl/collect/collected_record.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>

#include "collection/collect.h"
#include "collection/plan_members.h"
#include "collection/record_file.h"
#include "collection/record_members.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/open_file.h"
#include "jsontext/strict_json.h"
#include "platform/clock.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/script_file.h"
#include "tools/kvagentctl/snmp_hints.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

constexpr std::size_t largestRecord = std::size_t{1} << 30;  // bytes; a script's record is cut at half of that

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

/// Whether a text begins as a dictionary, or a list of some, that Python has printed.
bool LooksLikePython(std::string_view text) {
    while (!text.empty() && std::string_view("{[ \t\r\n").find(text.front()) != std::string_view::npos)
        text.remove_prefix(1);
    return text.starts_with('\'');
}

/// What is odd about a text as JSON that a server expects; the agent sends it as it is. Empty when nothing is.
std::string JsonRemark(const PlannedRecord& planned, const std::string& text) {
    if (const std::string fault = StrictJsonFault(text); !fault.empty())
        return fmt::format("it is not JSON, and goes out as it is: {}{}", fault,
                           LooksLikePython(text) ? "; single quotes: in Python print json.dumps(...)" : "");
    const JsonPtr json = ParsedJson(text);
    if (!json_object_is_type(json.get(), json_type_object)) return "it is not an object, which a server expects";
    std::vector<std::string> missing{"AGENTKEY", "DATACOLLECTTIME", "ERRORMSG",
                                     Utf8FromWide(MemberText(planned.record, u"Name").value_or(u""))};
    std::erase_if(missing, [&json](const std::string& name) {
        return name.empty() || json_object_object_get_ex(json.get(), name.c_str(), nullptr);
    });
    return missing.empty() ? "" : fmt::format("it lacks {}, which a server expects", fmt::join(missing, ", "));
}

/// What is odd about the text that a script printed; empty when nothing is.
std::string RemarkOn(const PlannedRecord& planned, const std::string& text) {
    const std::string remark = JsonRemark(planned, text);
    const std::size_t replaced = text.find("\uFFFD");
    if (replaced == std::string::npos) return remark;
    const auto line = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(replaced), '\n') + 1;
    return fmt::format(
        "bytes that are not UTF-8 were replaced: U+FFFD stands for them, first in line {}; print UTF-8{}{}", line,
        remark.empty() ? "" : "; ", remark);
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
    constexpr std::string_view signs[] = {" is not run", " does not exist", " failed: Error Code : 126",
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

/// A line of the log, with what an error status of a device means.
std::string WithMeaning(const PlannedRecord& planned, std::string_view line) {
    const std::string meaning = planned.kind == "SNMP" ? ErrorStatusMeaning(line) : "";
    return std::string(line) + (meaning.empty() ? "" : fmt::format("{}; {}", meaning, instanceHint));
}

}  // namespace

JsonPtr ParsedJson(const std::string& text) {
    if (!StrictJsonFault(text).empty()) return {nullptr, json_object_put};
    return {json_tokener_parse(text.c_str()), json_object_put};
}

CollectedRecord Collect(const PlannedRecord& planned, const std::u16string& folder, ScriptErrors& errors) {
    CollectedRecord collected;
    for (const std::u16string& odd : OddMembersOfRecord(planned.record)) collected.lines.push_back(Utf8FromWide(odd));
    const std::uint64_t begin = platform::Clock().GetTickCount64();
    const std::uint64_t failedBefore = agentHealth.queriesFailed;
    {
        const LogLines log([&](std::string_view line) {
            const std::string_view told = WithoutRoutine(line);
            if (!told.empty()) collected.lines.push_back(WithMeaning(planned, told));
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

}  // namespace kv::control
