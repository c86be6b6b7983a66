#include "lab/page/tracks.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/page/tiles.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr double stripWidth = 1000;  // in the drawing's own units
constexpr std::size_t maxTitleBytes = 120;

/// A failed tick is also taller than a good one, for those who cannot tell the colours.
struct TickLook {
    std::string_view name;  // its class
    int top;
};

TickLook LookOf(const Tick& tick) {
    if (tick.failed == 0) return {"tick", 6};
    return tick.failed == tick.records ? TickLook{"'tick failed'", 0} : TickLook{"'tick some'", 3};
}

std::string TickTitle(const Tick& tick, std::int64_t now) {
    std::string title =
        now - tick.collected < 20 * hourMilliseconds ? ClockText(tick.collected) : UtcText(tick.collected);
    if (tick.records > 1) title += fmt::format(", {} records", tick.records);
    if (tick.failed == 0) return title;
    if (tick.failed < tick.records) title += fmt::format(", {} failed", tick.failed);
    return title + ": " + std::string(StartOfText(tick.reason, maxTitleBytes));
}

void AddTick(std::string& html, const Tick& tick, const Scope& scope, std::int64_t part) {
    const TickLook look = LookOf(tick);
    const double scale = stripWidth / static_cast<double>(scope.range.to - scope.range.from + part);
    const std::int64_t first = scope.range.from - scope.range.from % part;
    const double left = static_cast<double>(std::clamp(tick.start, first, scope.range.to) - first) * scale;
    Add(html,
        "<a href=/record/{} tabindex=-1><path class={} d='M{:.1f} {}h{:.1f}V16H{:.1f}z'><title>{}</title></path></a>",
        tick.record, look.name, left, look.top, static_cast<double>(part) * scale * 0.86, left,
        Escape(TickTitle(tick, scope.range.to)));
}

void AddTrack(std::string& html, const Track& track, const Scope& scope) {
    const Source& source = track.source;
    const std::string title =
        source.agent + (source.device.empty() ? "" : " · " + source.device) + " · " + NameText(source.name);
    Add(html, "<div class=label title=\"{}\"><a href=\"/records{}\">{} <b>{}</b></a></div>", Escape(title),
        Escape(SourceQuery(scope, source)), Escape(Sender(source)), Escape(NameText(source.name)));
    const std::int64_t good = track.records - track.failed;
    Add(html, "<div class=share title=\"{} of {} good\">{}</div>", good, track.records,
        Escape(ShareText(good, track.records)));
    Add(html, "<svg viewBox='0 0 {} 16' preserveAspectRatio=none role=img aria-label=\"{}: {} {}, {} failed\">",
        stripWidth, Escape(title), track.records, track.records == 1 ? "record" : "records", track.failed);
    for (const Tick& tick : track.ticks) AddTick(html, tick, scope, scope.choice->tick);
    html += "</svg>\n";
}

void AddAxis(std::string& html, const Scope& scope) {
    html += "<div class=axis>";
    const std::int64_t span = scope.range.to - scope.range.from;
    for (const int quarter : {0, 2, 4})
        Add(html, "<span>{}</span>", MinuteText(scope.range.from + span * quarter / 4, scope.range.to));
    html += "</div>\n";
}

void AddKey(std::string& html) {
    html += "<div class=key>";
    const std::pair<TickLook, std::string_view> looks[]{
        {{"tick", 6}, "good"}, {{"'tick some'", 3}, "some failed"}, {{"'tick failed'", 0}, "failed"}};
    for (const auto& [look, text] : looks)
        Add(html, "<span><svg viewBox='0 0 8 16' aria-hidden=true><path class={} d='M0 {}h8V16H0z'/></svg>{}</span>",
            look.name, look.top, text);
    html += "<span>times are UTC; a gap: nothing came</span></div>\n";
}

/// The strips in numbers, for those who cannot see them.
void AddTrackSums(std::string& html, const Tracks& tracks) {
    Table table{"records by source",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"records", "Records"},
                 {"failed", "Failed"},
                 {"newest", "Newest"},
                 {"state", "It is"}},
                {}};
    for (const Track& track : tracks.tracks) {
        const Source& source = track.source;
        table.rows.push_back({source.agent, source.device, NameText(source.name), track.records, track.failed,
                              Moment{source.collected},
                              source.failed ? Marked{"failed", Mark::bad} : Marked{"good", Mark::good}});
    }
    html += "<details id=tracks-table><summary>In numbers</summary>";
    AddHtmlTable(html, table);
    html += "</details>\n";
}

}  // namespace

void AddTracks(std::string& html, const Tracks& tracks, const Scope& scope) {
    if (tracks.tracks.empty()) return;
    html += "<section id=tracks>";
    AddSectionTitle(html, "Each record over time", "/tracks", ScopeQuery(scope));
    html += "<div class=card><div class=strip>\n";
    for (const Track& track : tracks.tracks) AddTrack(html, track, scope);
    AddAxis(html, scope);
    html += "</div>\n";
    AddKey(html);
    AddTrackSums(html, tracks);
    html += "</div>\n";
    AddMore(html, tracks.more);
    html += "</section>\n";
}

Table TrackTable(const Tracks& tracks) {
    Table table{"tracks",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"start", "Start"},
                 {"records", "Records"},
                 {"failed", "Failed"},
                 {"record", "Latest"},
                 {"collected", "Collected"},
                 {"reason", "Reason"}},
                {}};
    for (const Track& track : tracks.tracks)
        for (const Tick& tick : track.ticks)
            table.rows.push_back({track.source.agent, track.source.device, track.source.name, Moment{tick.start},
                                  tick.records, tick.failed, tick.record, Moment{tick.collected}, tick.reason});
    return table;
}

}  // namespace kv::lab
