#include "lab/page/metrics.h"

#include <fmt/format.h>
#include <iterator>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "lab/page/agents.h"
#include "lab/page/units.h"
#include "lab/store/history.h"
#include "lab/store/requests.h"
#include "lab/store/series.h"

namespace kv::lab {

namespace {

constexpr std::int64_t maxValues = 200'000;

template <class... Arguments>
void AddLine(std::string& text, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(text), format, std::forward<Arguments>(arguments)...);
    text += '\n';
}

void AddFamily(std::string& text, std::string_view name, std::string_view type, std::string_view help) {
    AddLine(text, "# TYPE {} {}", name, type);
    AddLine(text, "# HELP {} {}", name, help);
}

/// The value of a label within its quotes.
std::string Label(std::string_view value) {
    std::string escaped;
    for (const char character : value) {
        if (character == '\n') {
            escaped += "\\n";
            continue;
        }
        if (character == '"' || character == '\\') escaped += '\\';
        escaped += character;
    }
    return escaped;
}

/// How often the labels came.
using Taken = std::unordered_map<std::string, int>;

void AddValue(std::string& text, Taken& taken, std::string_view sample, const LatestValue& value,
              const Meaning& meaning) {
    const SeriesName& series = value.series;
    const std::string title = MemberTitle(series.member);
    // A known OID is named: the object is the property, and its instance the row.
    const bool isNamedOid = title != series.member;
    const std::size_t blank = title.find(' ');
    MemberParts parts = SplitMember(series.member);
    if (isNamedOid)
        parts = {blank == std::string::npos ? std::string_view() : std::string_view(title).substr(blank + 1),
                 std::string_view(title).substr(0, blank)};
    const bool isCounter = meaning.kind == ValueKind::counter;
    const auto labels = [&](std::string_view row) {
        return fmt::format(R"(agent="{}",device="{}",name="{}",row="{}",property="{}",unit="{}")", Label(series.agent),
                           Label(series.device), Label(series.name), Label(row), Label(parts.property),
                           isCounter ? "" : UnitName(meaning.unit));
    };
    // Who scrapes refuses everything when one sample comes twice: rows that read alike are numbered.
    std::string name = labels(parts.row);
    int& times = taken[name];
    if (times == 0) {
        times = 1;
    } else {
        do name = labels(fmt::format("{} #{}", parts.row, ++times));
        while (!taken.try_emplace(name, 1).second);
    }
    AddLine(text, "{}{{{}}} {}", sample, name, MeantNumber(value.number, meaning));
}

void AddValues(std::string& text, const std::vector<LatestValue>& values, ValueKind kind, std::string_view sample) {
    Taken taken;
    for (const LatestValue& value : values) {
        const Meaning meaning = MeaningOf(value.series.member);
        if (meaning.kind == kind) AddValue(text, taken, sample, value, meaning);
    }
}

void AddOwnCounts(std::string& text, Store& store, std::int64_t now) {
    const Totals totals = CountAll(store);
    const Summary summary = Summarize(store, {now - metricsMilliseconds, INT64_MAX}, {}, now - silentMilliseconds);
    const std::tuple<const char*, const char*, std::int64_t> counts[]{
        {"kvlab_agents", "Agents that the server knows.", totals.agents},
        {"kvlab_agents_in_contact", "Agents that called lately.", summary.agentsInContact},
        {"kvlab_uploads", "Zips that the database holds.", totals.zips},
        {"kvlab_records", "Records that the database holds.", totals.records},
        {"kvlab_refused_uploads", "Uploads that were refused and not forgotten yet.", totals.refused},
        {"kvlab_sources", "Agents, devices and records that sent something lately.", summary.sources},
        {"kvlab_failing_sources", "Those of them whose newest record failed.", summary.failingSources},
    };
    for (const auto& [name, help, number] : counts) {
        AddFamily(text, name, "gauge", help);
        AddLine(text, "{} {}", name, number);
    }
    AddFamily(text, "kvlab_requests", "gauge", "Requests to agents by their state.");
    for (const auto& [state, number] : RequestStates(store))
        AddLine(text, R"(kvlab_requests{{state="{}"}} {})", Label(state), number);
}

}  // namespace

std::string Metrics(Store& store, std::int64_t now) {
    const std::vector<LatestValue> values = ReadLatestValues(store, {}, now - metricsMilliseconds, maxValues);
    std::string text;
    AddFamily(text, "kv_value", "gauge", "A numeric value of the newest record.");
    AddValues(text, values, ValueKind::gauge, "kv_value");
    AddFamily(text, "kv_cumulative", "counter", "A counter of the newest record, which only grows.");
    AddValues(text, values, ValueKind::counter, "kv_cumulative_total");
    AddOwnCounts(text, store, now);
    text += "# EOF\n";
    return text;
}

}  // namespace kv::lab
