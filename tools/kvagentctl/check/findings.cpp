#include "tools/kvagentctl/check/findings.h"

#include <algorithm>
#include <fmt/format.h>
#include <utf8.h>
#include <utility>

#include "commandline/run.h"
#include "tools/kvagentctl/json_text.h"
#include "tools/kvagentctl/status/status_text.h"

namespace kv::control {

namespace {

const char* SeverityName(Severity severity) {
    switch (severity) {
        case Severity::error:
            return "error";
        case Severity::warning:
            return "warning";
        case Severity::note:
            break;
    }
    return "note";
}

json_object* JsonFinding(const Finding& finding) {
    json_object* object = json_object_new_object();
    json_object_object_add(object, "severity", json_object_new_string(SeverityName(finding.severity)));
    json_object_object_add(object, "where", JsonText(finding.where));
    json_object_object_add(object, "what", JsonText(finding.what));
    json_object_object_add(object, "next", finding.next.empty() ? nullptr : JsonText(finding.next));
    return object;
}

}  // namespace

void Findings::Error(std::string where, std::string what, std::string next) {
    list.push_back({Severity::error, std::move(where), std::move(what), std::move(next)});
}

void Findings::Warn(std::string where, std::string what, std::string next) {
    list.push_back({Severity::warning, std::move(where), std::move(what), std::move(next)});
}

void Findings::Note(std::string where, std::string what, std::string next) {
    list.push_back({Severity::note, std::move(where), std::move(what), std::move(next)});
}

std::size_t Findings::Count(Severity severity) const {
    return static_cast<std::size_t>(std::count_if(
        list.begin(), list.end(), [severity](const Finding& finding) { return finding.severity == severity; }));
}

std::string PrintedFindings(const Findings& findings) {
    std::string text;
    for (const Finding& finding : findings.list) {
        const char* const separator = finding.what.ends_with('?') ? " " : "; ";
        const std::string next = finding.next.empty() ? "" : separator + finding.next;
        const std::string line = finding.where + ": " + finding.what + next;
        text +=
            fmt::format("{}: {}\n", SeverityName(finding.severity), commandline::InLine(utf8::replace_invalid(line)));
    }
    return text + fmt::format("{}, {}\n", Counted(findings.Count(Severity::error), "error"),
                              Counted(findings.Count(Severity::warning), "warning"));
}

std::string FindingsAsJson(const Findings& findings) {
    const JsonPtr whole(json_object_new_object(), json_object_put);
    json_object* list = json_object_new_array();
    for (const Finding& finding : findings.list) json_object_array_add(list, JsonFinding(finding));
    json_object_object_add(whole.get(), "findings", list);
    const auto count = [&](Severity severity) {
        return json_object_new_int64(static_cast<std::int64_t>(findings.Count(severity)));
    };
    json_object_object_add(whole.get(), "errors", count(Severity::error));
    json_object_object_add(whole.get(), "warnings", count(Severity::warning));
    return TextOfJson(whole.get()) + "\n";
}

}  // namespace kv::control
