#include "lab/page/plot.h"

#include <algorithm>
#include <cmath>

#include "lab/page/curve.h"
#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/page/value_cards.h"

namespace kv::lab {

namespace {

constexpr std::int64_t maxLines = 12;  // as many as have a colour of their own
constexpr std::int64_t partsOfPlot = 240;
constexpr std::size_t rowsOnPage = 300;
constexpr std::int64_t maxTableLines = 1000;

constexpr double drawingWidth = 1000;
constexpr double drawingHeight = 320;
constexpr int wantedSteps = 5;

struct Line {
    SeriesName series;
    Curve curve;
};

struct Plot {
    Scope scope;
    std::string member;
    Meaning meaning;
    std::vector<Line> lines;  // those that have points
    bool more = false;
};

Plot ReadPlot(Store& store, const ServletRequest& request, std::int64_t lines) {
    Plot plot{ScopeOf(request, Now()), RequiredParameter(request, "member"), {}, {}, false};
    plot.meaning = MeaningOf(plot.member);
    const std::int64_t part = plot.scope.choice->milliseconds / partsOfPlot;
    SeriesList list = ReadSeries(store, plot.scope.Records(), plot.scope.filter, plot.member, lines);
    plot.more = list.more;
    for (SeriesName& series : list.series) {
        Curve curve = ReadCurve(store, series.number, plot.scope.Records(), part, plot.meaning);
        if (!curve.isEmpty()) plot.lines.push_back({std::move(series), std::move(curve)});
    }
    return plot;
}

/// 1, 2 or 5 times a power of ten, such that a range has few steps.
double NiceStep(double range) {
    const double rough = range / wantedSteps;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (rough <= factor * power) return factor * power;
    return 10 * power;
}

/// The steps of the vertical axis around all lines. It begins at 0 unless all numbers are far from it.
struct VerticalAxis {
    double low = 0;
    double high = 1;
    double step = 1;
};

VerticalAxis VerticalAxisOf(const std::vector<Line>& lines) {
    double low = lines[0].curve.low;
    double high = lines[0].curve.high;
    for (const Line& line : lines) {
        low = std::min(low, line.curve.low);
        high = std::max(high, line.curve.high);
    }
    const bool isFarFromZero = low > 0 && high - low < low / 2;
    if (low > 0 && !isFarFromZero) low = 0;
    if (high <= low) {
        const double room = low == 0 ? 1 : std::fabs(low) / 10;
        high += room;
        if (low != 0) low -= room;
    }
    const double step = NiceStep(high - low);
    return {std::floor(low / step) * step, std::ceil(high / step) * step, step};
}

void AddVerticalAxis(std::string& html, const VerticalAxis& axis, const PlotArea& area, Unit unit) {
    html += "<div class=yaxis>";
    for (double number = axis.low; number <= axis.high + axis.step / 2; number += axis.step) {
        // A sum of steps that should be 0 is nearly so.
        const double shown = std::fabs(number) < axis.step / 1000 ? 0 : number;
        Add(html, "<span style='top:{:.1f}%'>{}</span>", area.Y(number) / area.height * 100, AxisText(shown, unit));
    }
    html += "</div>";
}

std::int64_t TimeStep(std::int64_t range) {
    constexpr std::int64_t minute = 60'000;
    for (const std::int64_t minutes : {1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440})
        if (range / (minutes * minute) <= 6) return minutes * minute;
    return 2 * 1440 * minute;
}

/// The moments below the drawing, in UTC.
std::vector<std::int64_t> TimeSteps(const PlotArea& area) {
    const std::int64_t step = TimeStep(area.to - area.from);
    std::vector<std::int64_t> times;
    for (std::int64_t time = area.from - area.from % step + step; time <= area.to; time += step) times.push_back(time);
    return times;
}

void AddHorizontalAxis(std::string& html, const PlotArea& area) {
    html += "<div class=xaxis>";
    for (const std::int64_t time : TimeSteps(area)) {
        const double left = area.X(time) / area.width * 100;
        Add(html, "<span style='left:{:.1f}%'>{}</span>", std::clamp(left, 4.0, 96.0), MinuteText(time, area.to));
    }
    html += "</div>";
}

void AddGrid(std::string& html, const VerticalAxis& axis, const PlotArea& area) {
    html += "<path class=grid-line d='";
    for (double number = axis.low; number <= axis.high + axis.step / 2; number += axis.step)
        Add(html, "M0 {:.1f}H{}", area.Y(number), area.width);
    for (const std::int64_t time : TimeSteps(area)) Add(html, "M{:.1f} 0V{}", area.X(time), area.height);
    html += "'/>";
}

/// Columns without a colour over the drawing of one line: where the pointer stands, they tell time and number.
void AddHoverColumns(std::string& html, const Line& line, const PlotArea& area, const Plot& plot) {
    const Unit unit = plot.meaning.unit;
    for (const std::vector<CurvePoint>& piece : line.curve.pieces) {
        for (std::size_t at = 0; at < piece.size(); ++at) {
            const CurvePoint& point = piece[at];
            const double left =
                at == 0 ? area.X(point.time) - 2 : (area.X(piece[at - 1].time) + area.X(point.time)) / 2;
            const double right =
                at + 1 == piece.size() ? area.X(point.time) + 2 : (area.X(point.time) + area.X(piece[at + 1].time)) / 2;
            Add(html, "<path class=hover d='M{:.1f} 0H{:.1f}V{}H{:.1f}z'><title>{}  {}", left, right, area.height, left,
                MinuteText(point.time, area.to), ValueText(point.number, unit));
            if (point.high > point.low)
                Add(html, " ({} to {})", ValueText(point.low, unit), ValueText(point.high, unit));
            html += "</title></path>";
        }
    }
}

void AddDrawing(std::string& html, const Plot& plot) {
    const VerticalAxis axis = VerticalAxisOf(plot.lines);
    const PlotArea area{drawingWidth, drawingHeight, plot.scope.range.from, plot.scope.range.to, axis.low, axis.high};
    html += "<div class='card plot'>";
    AddVerticalAxis(html, axis, area, plot.meaning.unit);
    Add(html, "<svg viewBox='0 0 {} {}' preserveAspectRatio=none role=img aria-label=\"{}, the numbers are below\">",
        drawingWidth, drawingHeight, Escape(MemberTitle(plot.member)));
    AddGrid(html, axis, area);
    for (std::size_t at = 0; at < plot.lines.size(); ++at)
        Add(html, "<path class='line line{}' d='{}'/>", at, LinePath(plot.lines[at].curve, area));
    if (plot.lines.size() == 1) AddHoverColumns(html, plot.lines[0], area, plot);
    html += "</svg>";
    AddHorizontalAxis(html, area);
    html += "</div>\n";
}

std::string LineTitle(const SeriesName& series) { return SourceTitle({0, series.agent, series.device, series.name}); }

/// What each line is, and its smallest, largest and last number.
void AddLegend(std::string& html, const Plot& plot) {
    const Unit unit = plot.meaning.unit;
    html +=
        "<div class='card scroll' tabindex=0 role=region aria-label=Lines><table><tr><th scope=col>Line</th>"
        "<th scope=col class=num>Last</th><th scope=col class=num>Smallest</th><th scope=col "
        "class=num>Largest</th></tr>\n";
    for (std::size_t at = 0; at < plot.lines.size(); ++at) {
        const auto& [series, curve] = plot.lines[at];
        Add(html,
            "<tr><td><svg class=swatch viewBox='0 0 14 8' aria-hidden=true><path class='line line{}' d='M0 "
            "4H14'/></svg>"
            "<a href=\"{}\">{}</a></td><td class=num>{}</td><td class=num>{}</td><td class=num>{}</td></tr>\n",
            at, Escape(PlotPath(plot.scope, series)), Escape(LineTitle(series)), ValueText(curve.last, unit),
            ValueText(curve.low, unit), ValueText(curve.high, unit));
    }
    html += "</table></div>\n";
}

/// The newest first on the page, the oldest first in files.
Table PointTable(const Plot& plot) {
    Table table{"points",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"time", "Time"},
                 {"number", "Number"},
                 {"low", "Smallest"},
                 {"high", "Largest"},
                 {"unit", "Unit"}},
                {}};
    for (const auto& [series, curve] : plot.lines)
        for (const std::vector<CurvePoint>& piece : curve.pieces)
            for (const CurvePoint& point : piece)
                table.rows.push_back({series.agent, series.device, Moment{point.time}, point.number, point.low,
                                      point.high, std::string(UnitName(plot.meaning.unit))});
    return table;
}

std::string MemberQuery(const Scope& scope, const std::string& member) {
    return QueryWithMember(ScopeQuery(scope), member);
}

void AddPoints(std::string& html, const Plot& plot) {
    Table table = PointTable(plot);
    std::reverse(table.rows.begin(), table.rows.end());
    const std::size_t more = table.rows.size() - std::min(table.rows.size(), rowsOnPage);
    table.rows.resize(table.rows.size() - more);
    html += "<details id=points><summary>In numbers</summary>";
    AddHtmlTable(html, table);
    if (more > 0) Add(html, "<p class=soft>… {} more; CSV and JSON hold all of them.</p>", more);
    html += "</details>\n";
}

std::string PlotBody(const Plot& plot) {
    std::string html;
    AddSectionTitle(html, MemberTitle(plot.member), "/plot", MemberQuery(plot.scope, plot.member));
    if (plot.meaning.kind == ValueKind::counter) html += "<p class=soft>A counter, shown as its rate.</p>\n";
    if (plot.lines.empty()) return html + "<p>No number of this value was collected in this time.</p>\n";
    AddDrawing(html, plot);
    AddLegend(html, plot);
    if (plot.more)
        Add(html, "<p class=soft>… and more than these {}; name an agent to see the others.</p>\n", maxLines);
    AddPoints(html, plot);
    return html;
}

/// The range as links, and a way to the same value of all agents.
std::string PlotControls(const Plot& plot) {
    std::string html = "<div class=bar><nav class=tabs aria-label=Range><span>last</span>";
    Scope scope = plot.scope;
    for (const RangeChoice& choice : rangeChoices) {
        scope.choice = &choice;
        Add(html, " <a href=\"/plot{}\"{}>{}</a>", Escape(MemberQuery(scope, plot.member)),
            plot.scope.choice == &choice ? " aria-current=true" : "", choice.title);
    }
    html += "</nav>" + ClockPlace(plot.scope.range.to);
    scope = plot.scope;
    scope.filter.agent.reset();
    if (plot.scope.filter.agent)
        Add(html, "<a href=\"/plot{}\">all agents</a>", Escape(MemberQuery(scope, plot.member)));
    return html + "</div>\n";
}

std::string PlotTitle(const Plot& plot) {
    const Filter& filter = plot.scope.filter;
    std::string title = filter.agent ? *filter.agent : "All agents";
    if (filter.device && !filter.device->empty()) title += " · " + *filter.device;
    if (filter.name) title += " · " + NameText(*filter.name);
    return title;
}

}  // namespace

std::string PlotFragment(Store& store, const ServletRequest& request) {
    return PlotBody(ReadPlot(store, request, maxLines));
}

std::string PlotPage(Store& store, const ServletRequest& request) {
    const Plot plot = ReadPlot(store, request, maxLines);
    constexpr int refreshSeconds = 10;
    Frame frame;
    frame.title = PlotTitle(plot);
    frame.path = "/plot";
    frame.controls = PlotControls(plot);
    frame.body = PlotBody(plot);
    frame.fragment = "/plot/fragment";
    frame.refreshSeconds = refreshSeconds;
    return Document(frame);
}

Table PlotTable(Store& store, const ServletRequest& request) {
    return PointTable(ReadPlot(store, request, maxTableLines));
}

}  // namespace kv::lab
