// What kvagentctl check says of the limits for the server: what their patterns allow on this computer.
#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/request_types.h"
#include "foundation/server_limit.h"
#include "platform/utf.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/status/status_text.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

constexpr std::size_t mostScripts = 10000;  // that are looked at
constexpr std::size_t mostNames = 10;       // that a finding lists

bool Allows(const ServerLimit& limit, std::span<const std::u16string> names) { return !limit.Refusal(names); }

/// The files in a folder and below it, by their paths from the first folder on. Links to folders are not followed.
void AddFiles(const std::u16string& folder, const std::u16string& below, std::vector<std::u16string>& files) {
    for (FileSearch search(folder + below + u"*"); search.hasFile() && files.size() < mostScripts; search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (!search.file.isDirectory)
            files.push_back(below + name);
        else if (name != u"." && name != u"..")
            AddFiles(folder, below + name + u"/", files);
    }
}

std::string Listed(const std::vector<std::u16string>& names) {
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), mostNames); ++i)
        text += (i == 0 ? "" : ", ") + Utf8FromWide(names[i]);
    return names.size() > mostNames ? fmt::format("{} and {} more", text, names.size() - mostNames) : text;
}

/// Whether there is a limit whose patterns decide. One that allows nothing whatever they are is told.
bool HasPatterns(Findings& findings, const ServerLimit& limit, const std::string& where) {
    if (!limit.isSet()) return false;
    const std::optional<std::u16string> refusal = limit.RefusalOfAll();
    if (refusal) findings.Note(where, Utf8FromWide(refusal->substr(refusal->find(u' ') + 1)));
    return !refusal;
}

void CheckRequests(Findings& findings) {
    const std::string where = "setting Monitoring\\AllowedRequests";
    const ServerLimit limit = LimitOfRequests();
    if (!HasPatterns(findings, limit, where)) return;
    std::vector<std::u16string> allowed;
    for (const std::u16string_view name : requestTypeNames) {
        const std::u16string names[] = {std::u16string(name)};
        if (Allows(limit, names)) allowed.push_back(names[0]);
    }
    const bool isAll = allowed.size() == std::size(requestTypeNames);
    if (!allowed.empty()) findings.Note(where, "allows " + (isAll ? std::string("every request") : Listed(allowed)));
}

void CheckServices(Findings& findings) {
    const std::string where = "setting Monitoring\\AllowedServices";
    const ServerLimit limit = LimitOfServices();
    const std::u16string ofNobody[] = {u"\x01", u"\x01.service"};
    if (HasPatterns(findings, limit, where) && Allows(limit, ofNobody)) findings.Note(where, "allows every service");
}

void CheckScripts(Findings& findings) {
    const std::string where = "setting Monitoring\\AllowedScripts";
    const std::u16string install = InstallDirectory();
    const ServerLimit limit = LimitOfScripts();
    if (!HasPatterns(findings, limit, where) || install.empty()) return;
    std::vector<std::u16string> scripts;
    AddFiles(install + u"monitoring\\conf\\scripts\\", u"", scripts);
    std::vector<std::u16string> allowed;
    std::copy_if(scripts.begin(), scripts.end(), std::back_inserter(allowed), [&](const std::u16string& script) {
        return Allows(limit, {&script, 1});
    });
    std::sort(allowed.begin(), allowed.end());
    const std::string all = Counted(scripts.size(), "script") + " below conf/scripts";
    if (!allowed.empty())
        findings.Note(where, fmt::format("allows {} of {}: {}", allowed.size(), all, Listed(allowed)));
    else if (!scripts.empty())
        findings.Warn(where, "allows none of " + all, "give paths below conf/scripts, letter case included");
}

}  // namespace

void CheckLimits(Findings& findings) {
    CheckRequests(findings);
    CheckServices(findings);
    CheckScripts(findings);
}

}  // namespace kv::control
