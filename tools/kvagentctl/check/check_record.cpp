// What kvagentctl check says of a record of a plan.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "collection/plan_members.h"
#include "collection/record_members.h"
#include "collection/snmp_query.h"
#include "collection/wmi.h"
#include "collection/wmi_query.h"
#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "snmp/asn.h"
#include "snmp/message.h"
#include "snmp/oid.h"
#include "snmp/pdu.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/script_file.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

/// One record while it is checked.
struct Subject {
    Findings& findings;
    PlanContext& context;
    std::string where;
    const HashTable* record;

    void Error(std::string what, std::string next = "") const {
        findings.Error(where, std::move(what), std::move(next));
    }
    void Warn(std::string what, std::string next = "") const { findings.Warn(where, std::move(what), std::move(next)); }
    OptionalText text(std::u16string_view key) const { return MemberText(record, key); }
};

/// The member as text; a finding when it is absent or not a text.
OptionalText NeededText(const Subject& subject, std::u16string_view key) {
    OptionalText text = subject.text(key);
    const bool isThere = ContainsHashKey(subject.record, key) != 0;
    if (!text)
        subject.Error(
            fmt::format("{} {}: the record is skipped", Utf8FromWide(key), isThere ? "is not a text" : "is missing"));
    return text;
}

/// Two records of one name reach the server as one.
void CheckName(const Subject& subject, const std::u16string& name) {
    const auto [place, isNew] = subject.context.places.emplace(name, subject.where);
    if (!isNew)
        subject.Warn(fmt::format("has the Name of {}, and the server cannot tell their rows apart", place->second));
}

void CheckWmi(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, wmiRecordMembers);
    const OptionalText query = NeededText(subject, u"wmiQuery");
    const OptionalText name = NeededText(subject, u"Name");
    if (name && IsWMIRecordMember(*name))
        subject.Error(fmt::format("Name {} is another member of the record: it is skipped", Utf8FromWide(*name)),
                      "give it another Name");
    else if (name)
        CheckName(subject, *name);
    if (!query) return;
    const auto [known, isNew] = subject.context.queryFaults.try_emplace(std::pair(subject.text(u"nameSpace"), *query));
    std::optional<std::u16string>& fault = known->second;
    if (isNew) fault = WMIQueryFault(known->first.first, known->first.second);
    if (!fault)
        subject.context.isQueryUnjudged = true;
    else if (!fault->empty())
        subject.Error("wmiQuery is refused: " + Utf8FromWide(*fault));
}

/// What is wrong with the file of a script that is there.
void JudgeScriptFile(Findings& findings, const std::u16string& path, const std::string& native) {
    const auto fails = [&](const std::string& what, const std::string& next = "") {
        findings.Error("", fmt::format("script {} {}", native, what), next);
    };
    if (IsDirectory(path)) return fails("is a directory");
    const std::optional<platform::FilePermissions> permissions = platform::GetFilePermissions(path);
    if (!permissions) {
        const std::string fault = FileFault(path);
        if (!fault.empty()) fails(fault);
        return;
    }
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(native, unknown)) return fails("is not a regular file");
    const std::string fault = FirstLineFault(path, permissions->isExecutable);
    if (!permissions->isExecutable)
        findings.Warn("", fmt::format("script {} is not executable, so /bin/sh runs it", native), "chmod +x " + native);
    if (!fault.empty()) fails(fault);
    if (permissions->othersWrite)
        fails(fmt::format("may be changed by others (mode {})", permissions->mode), "chmod 0750 " + native);
}

std::vector<Finding> FindingsOfScript(const PlanContext& context, const std::u16string& script) {
    Findings findings;
    const std::string name = Utf8FromWide(script);
    const std::u16string names[] = {script};
    const std::u16string path = context.install + u"monitoring\\conf\\scripts\\" + script;
    const std::string native = Utf8FromWide(platform::Files().NativePath(path));
    if (!StaysBelowDirectory(script)) {
        findings.Error("", fmt::format("script {} does not name a file below conf/scripts and is not run", name));
        return findings.list;
    }
    if (context.install.empty()) return {};
    if (const std::optional<std::u16string> refusal = context.scriptLimit.Refusal(names))
        findings.Error("", fmt::format("script {} is not run: {}", name, Utf8FromWide(*refusal)));
    if (MayExist(path))
        JudgeScriptFile(findings, path, native);
    else
        findings.Error("", fmt::format("script {} does not exist", native), "put it there");
    return findings.list;
}

void CheckScriptFile(const Subject& subject, const std::u16string& script) {
    const auto [known, isNew] = subject.context.scriptFindings.try_emplace(script);
    if (isNew) known->second = FindingsOfScript(subject.context, script);
    for (Finding finding : known->second) {
        finding.where = subject.where;
        subject.findings.list.push_back(std::move(finding));
    }
}

void CheckScript(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, scriptRecordMembers);
    if (const OptionalText script = NeededText(subject, u"script")) CheckScriptFile(subject, *script);
    const OptionalText name = subject.text(u"Name");
    if (name.value_or(u"").empty())
        subject.Warn("Name is missing, which shifts the script's arguments", "give it a Name");
    const bool makesRecord = CompareIgnoreCase(subject.text(u"response_needed"), u"true") == 0;
    if (!makesRecord)
        subject.findings.Note(subject.where, "response_needed is not true: the script runs, and no record comes");
    else if (!name.value_or(u"").empty())
        CheckName(subject, *name);
}

constexpr std::uint32_t largestSubId = 4294967294;  // see ConvertToOidOrIpFromString

/// The first number of an OID that is larger than the engine asks for; empty when none is. It would wrap at 32 bits.
std::string NumberTooLarge(const std::string& oid) {
    for (std::size_t at = 0; at < oid.size();) {
        const std::string number = oid.substr(at, oid.find('.', at) - at);
        std::uint64_t value = 0;
        const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
        if (parsed.ec == std::errc::result_out_of_range || value > largestSubId) return number;
        at += number.size() + 1;
    }
    return "";
}

/// What is wrong with one OID; empty when nothing is.
std::string OidFault(const std::string& oid) {
    constexpr std::uint32_t mostBehindSmall = 39;  // the second number is encoded together with a first one of 0 or 1
    if (!oid.starts_with('.')) return "does not begin with a dot";
    if (const std::string number = NumberTooLarge(oid); !number.empty())
        return fmt::format("has the number {}, and the largest that is asked for is {}", number, largestSubId);
    snmp::SubIds subIds;
    const std::int32_t count = snmp::ConvertToOidOrIpFromString(subIds, oid, false);
    if (count < 1) return "is not numbers with dots between";
    if (count > snmp::asnMaxBuildSubIds) return fmt::format("has {} numbers: it is not sent", count);
    if (count > snmp::maxReceivedSubIds)
        return fmt::format("has {} numbers: an answer with more than {} is not read", count, snmp::maxReceivedSubIds);
    if (subIds[0] > 2 || (subIds[0] < 2 && count > 1 && subIds[1] > mostBehindSmall))
        return "cannot be: an OID begins with 0, 1 or 2, and behind 0 and 1 comes a number up to 39";
    return "";
}

void CheckOids(const Subject& subject) {
    constexpr std::size_t mostShown = 60;
    const std::string oids = Utf8FromWide(subject.text(u"OID").value_or(u""));
    bool isAny = false;
    for (std::size_t at = 0; at < oids.size();) {
        const std::string oid = oids.substr(at, oids.find(',', at) - at);
        at += oid.size() + 1;
        if (oid.empty()) continue;
        isAny = true;
        const std::string fault = OidFault(oid);
        const std::string shown = oid.size() > mostShown ? oid.substr(0, mostShown) + "..." : oid;
        if (!fault.empty()) subject.Error(fmt::format("OID '{}' {}", shown, fault), "as in .1.3.6.1.2.1.1.3.0");
    }
    if (!isAny) subject.Error("OID is missing: nothing is asked");
}

void CheckSnmp(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, snmpRecordMembers);
    if (subject.text(u"DEVICE_NAME").value_or(u"").empty()) subject.Error("DEVICE_NAME is missing: nothing is asked");
    std::int32_t port = 0;
    if (!SnmpPort(subject.record, port))
        subject.Error("SNMP_PORT is not a number from 1 to 65535: the device is not asked");
    const OptionalText version = subject.text(u"SNMP_VERSION");
    if (version == u"v3")
        subject.Error("SNMP_VERSION v3 gets no answer from any device", "v1 or v2c");
    else if (version != u"v1" && version != u"v2c")
        subject.Warn(
            fmt::format("SNMP_VERSION '{}' is neither v1 nor v2c: v1 is taken", Utf8FromWide(version.value_or(u""))));
    const OptionalText community = subject.text(u"COMMUNITY");
    if (!community) subject.Warn("COMMUNITY is missing: public is taken");
    if (Utf8FromWide(community.value_or(u"")).size() > snmp::maxRequestCommunity)
        subject.Error(fmt::format("COMMUNITY has more than {} bytes", snmp::maxRequestCommunity));
    CheckOids(subject);
    for (const std::u16string_view key : {u"POLL_ID", u"AGENT_KEY"}) {
        if (!subject.text(key))
            subject.Warn(fmt::format("{} is missing, and the server knows the values by it", Utf8FromWide(key)));
    }
}

struct Kind {
    std::u16string_view key;
    void (*check)(const Subject& subject);
};
/// In the order in which the agent asks.
constexpr Kind kinds[] = {{u"wmiQuery", CheckWmi}, {u"script", CheckScript}, {u"PROTOCOL", CheckSnmp}};

}  // namespace

void CheckRecord(Findings& findings, PlanContext& context, const std::string& where, const HashTable* record) {
    Subject subject{findings, context, where, record};
    if (const OptionalText name = subject.text(u"Name")) subject.where += fmt::format(" \"{}\"", Utf8FromWide(*name));
    const Kind* found = nullptr;
    for (const Kind& kind : kinds) {
        if (!ContainsHashKey(record, kind.key)) continue;
        if (found)
            subject.Warn(
                fmt::format("{} is ignored, because {} is there", Utf8FromWide(kind.key), Utf8FromWide(found->key)));
        else
            found = &kind;
    }
    if (found) return found->check(subject);
    for (const std::u16string& odd : OddMembersOfRecord(record)) subject.Error(Utf8FromWide(odd));
}

}  // namespace kv::control
