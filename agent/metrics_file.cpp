#include "agent/metrics_file.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"

namespace kv {

namespace {

void AddHead(std::string& text, std::string_view name, std::string_view type, std::string_view meaning) {
    fmt::format_to(std::back_inserter(text), "# HELP kvagent_{0} {2}.\n# TYPE kvagent_{0} {1}\n", name, type, meaning);
}

void AddGauge(std::string& text, std::string_view name, std::string_view meaning, std::int64_t value) {
    AddHead(text, name, "gauge", meaning);
    fmt::format_to(std::back_inserter(text), "kvagent_{} {}\n", name, value);
}

void AddCounters(std::string& text, const HealthSnapshot& health) {
    for (const HealthCountName& known : HealthCounts()) {
        const auto count = std::find_if(health.counts.begin(), health.counts.end(),
                                        [&](const auto& candidate) { return candidate.first == known.name; });
        if (count == health.counts.end()) continue;
        AddHead(text, known.metric, "counter", known.meaning);
        fmt::format_to(std::back_inserter(text), "kvagent_{}_total {}\n", known.metric, count->second);
    }
}

std::int64_t Age(std::int64_t time, std::int64_t now) { return time == 0 ? 0 : std::max<std::int64_t>(now - time, 0); }

void AddWaiting(std::string& text, std::string_view what, const WaitingFiles& waiting, std::int64_t now) {
    const auto add = [&](std::string_view suffix, std::string_view meaning, std::int64_t value) {
        AddGauge(text, fmt::format("waiting_{}{}", what, suffix), fmt::format(fmt::runtime(meaning), what), value);
    };
    add("", "Number of {} that wait for the server", static_cast<std::int64_t>(waiting.number));
    add("_bytes", "Bytes of the {} that wait for the server", static_cast<std::int64_t>(waiting.bytes));
    add("_oldest_age_seconds", "Age of the oldest of the {} that wait, 0 when nothing waits",
        Age(waiting.oldestTime, now));
}

}  // namespace

std::string MetricsText(const HealthSnapshot& health, const WaitingFiles& records, const WaitingFiles& zips) {
    std::string text;
    AddHead(text, "build_info", "gauge", "The version of the agent, as a label");
    fmt::format_to(std::back_inserter(text), "kvagent_build_info{{version=\"{}\"}} 1\n", health.version);
    AddGauge(text, "up", "1 while the agent runs, 0 once it has been stopped", health.processId != 0 ? 1 : 0);
    AddGauge(text, "start_time_seconds", "When the agent was started, since 1970", health.startTime);
    AddGauge(text, "collecting", "1 while it collects, 0 while collection is stopped", health.isCollecting ? 1 : 0);
    AddGauge(text, "last_upload_timestamp_seconds", "When the server last accepted a zip, since 1970; 0 for never",
             health.lastUploadTime);
    AddGauge(text, "last_contact_timestamp_seconds", "When the server last answered anything, since 1970; 0 for never",
             health.lastContactTime);
    AddGauge(text, "last_failure_timestamp_seconds", "When something last failed, since 1970; 0 for never",
             health.lastFailureTime);
    AddWaiting(text, "records", records, health.writeTime);
    AddWaiting(text, "zips", zips, health.writeTime);
    AddCounters(text, health);
    return text + "# EOF\n";
}

platform::Error MayReplaceMetrics(std::u16string_view path) {
    namespace error = platform::error;
    constexpr std::string_view beginning = "# HELP kvagent_";
    OpenFile file;
    const platform::Error opened = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                                             platform::FileDisposition::openExisting);
    if (opened == error::accessDenied) return opened;
    platform::FileInformation information;
    // What cannot be looked at for another reason, such as a missing folder, is the writing's to tell.
    if (opened != error::success || platform::Files().GetFileInformationByHandle(file.handle, information))
        return error::success;
    if ((information.attributes & (platform::file_attribute::device | platform::file_attribute::directory)) != 0)
        return error::alreadyExists;
    std::string found(beginning.size(), '\0');
    std::size_t size = 0;
    if (platform::Files().ReadFile(file.handle, found.data(), found.size(), size)) return error::success;
    found.resize(size);
    const bool isOwn = beginning.starts_with(found) || found.find_first_not_of('\0') == std::string::npos;
    return isOwn ? error::success : error::alreadyExists;
}

platform::Error WriteMetricsFile(std::u16string_view path, std::string_view text) {
    if (const platform::Error refusal = MayReplaceMetrics(path)) return refusal;
    return ReplaceFile(path, ConcatStrings(path, u".tmp"), text, Readers::everyone);
}

}  // namespace kv
