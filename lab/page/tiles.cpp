#include "lab/page/tiles.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/record_html.h"

namespace kv::lab {

namespace {

constexpr std::int64_t minute = 60'000;

struct Tile {
    std::string path;       // empty when it leads nowhere
    std::string_view look;  // a class of style.h, or empty
    std::string number;
    std::string text;
};

void AddTile(std::string& html, const Tile& tile) {
    if (tile.path.empty())
        html += "<div class=tile>";
    else
        Add(html, "<a class=tile href=\"{}\">", Escape(tile.path));
    Add(html, "<b class='{}'>{}</b>{}</{}>\n", tile.look, Escape(tile.number), Escape(tile.text),
        tile.path.empty() ? "div" : "a");
}

/// ", 13 a minute" of the time since the first record came.
std::string RateText(const Summary& summary, const Range& range) {
    const std::int64_t begin = std::max(range.from, summary.firstCollected);
    if (summary.records == 0 || range.to - begin < minute) return "";
    const double rate = static_cast<double>(summary.records) * minute / static_cast<double>(range.to - begin);
    return rate < 9.95 ? fmt::format(", {:.1f} a minute", rate) : fmt::format(", {:.0f} a minute", rate);
}

/// "150,150".
std::string Grouped(std::int64_t count) {
    std::string digits = std::to_string(count);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

std::string Counted(std::int64_t count, std::string_view one, std::string_view many) {
    return std::string(count == 1 ? one : many);
}

std::string_view ContactLook(const Summary& summary) {
    if (summary.agents == 0) return "";
    return summary.agentsInContact == summary.agents ? "good" : "bad";
}

}  // namespace

void AddTiles(std::string& html, const Summary& summary, const Scope& scope) {
    Scope failed = scope;
    failed.filter.failedOnly = true;
    const bool hasRecords = summary.records > 0;
    html += "<div class=tiles>\n";
    AddTile(html, {"/agents", ContactLook(summary), fmt::format("{} / {}", summary.agentsInContact, summary.agents),
                   Counted(summary.agents, "agent in contact", "agents in contact")});
    AddTile(html, {hasRecords ? "#tracks" : "", "", Grouped(summary.devices),
                   Counted(summary.devices, "device or slave", "devices and slaves")});
    AddTile(html, {"/records" + ScopeQuery(scope), "", Grouped(summary.records),
                   Counted(summary.records, "record", "records") + RateText(summary, scope.range)});
    AddTile(html, {hasRecords ? "#problems" : "", summary.failingSources > 0 ? "bad" : (hasRecords ? "good" : ""),
                   Grouped(summary.failingSources), "failing now"});
    AddTile(html, {"/records" + ScopeQuery(failed), summary.failedRecords > 0 ? "bad" : (hasRecords ? "good" : ""),
                   ShareText(summary.failedRecords, summary.records), "of the records failed"});
    html += "</div>\n";
}

Table SummaryTable(const Summary& summary, const Scope& scope) {
    return {"summary",
            {{"from", "From"},
             {"to", "To"},
             {"agents", "Agents"},
             {"agents_in_contact", "In contact"},
             {"devices", "Devices and slaves"},
             {"sources", "Kinds of records"},
             {"failing_sources", "Failing now"},
             {"records", "Records"},
             {"failed_records", "Failed"}},
            {{Moment{scope.range.from}, Moment{scope.range.to}, summary.agents, summary.agentsInContact,
              summary.devices, summary.sources, summary.failingSources, summary.records, summary.failedRecords}}};
}

std::string ShareText(std::int64_t part, std::int64_t whole) {
    if (whole == 0) return "–";
    const std::int64_t percent = (part * 100 + whole / 2) / whole;
    if (percent == 0 && part > 0) return "<1 %";
    if (percent == 100 && part < whole) return ">99 %";
    return fmt::format("{} %", percent);
}

}  // namespace kv::lab
