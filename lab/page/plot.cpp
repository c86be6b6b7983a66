#include "lab/page/plot.h"

#include <algorithm>
#include <cmath>

#include "lab/page/curve.h"
#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/page/value_cards.h"
#include "lab/store/natural_order.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t maxLines = 12;  // as many as have a colour of their own
constexpr std::size_t maxBands = 3;
constexpr std::size_t maxDots = 40;
constexpr std::size_t othersNamed = 60;
constexpr std::int64_t choicesRead = 200;
constexpr std::int64_t partsOfPlot = 240;
constexpr std::size_t rowsOnPage = 300;
constexpr std::size_t maxTableLines = 1000;

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
    Range drawn;
    std::int64_t part = 0;           // what a point stands for, milliseconds
    std::vector<Line> lines;         // those that have points
    std::vector<SeriesName> others;  // not read
    bool more = false;               // even more than these
};

/// By agent, device and record in the order that people expect. It does not change while numbers come, so each line
/// keeps its colour.
SeriesList ReadSortedSeries(Store& store, const Plot& plot) {
    constexpr std::int64_t seriesRead = 1000;
    SeriesList list = ReadSeries(store, plot.scope.Records(), plot.scope.filter, plot.member, seriesRead);
    std::sort(list.series.begin(), list.series.end(), [](const SeriesName& one, const SeriesName& other) {
        if (one.agent != other.agent) return NaturallyLess(one.agent, other.agent);
        if (one.device != other.device) return NaturallyLess(one.device, other.device);
        return NaturallyLess(one.name, other.name);
    });
    return list;
}

Plot ReadPlot(Store& store, const ServletRequest& request, std::size_t lines) {
    Plot plot{ScopeOf(request, Now()), RequiredParameter(request, "member"), {}, {}, 0, {}, {}, false};
    plot.meaning = MeaningOf(plot.member);
    SeriesList list = ReadSortedSeries(store, plot);
    plot.more = list.more;
    const auto end = list.series.begin() + static_cast<std::ptrdiff_t>(std::min(lines, list.series.size()));
    plot.others.assign(end, list.series.end());
    list.series.erase(end, list.series.end());
    std::int64_t first = plot.scope.range.to;
    for (const SeriesName& series : list.series)
        first = std::min(first, ReadFirstTime(store, series.number, plot.scope.Records()).value_or(first));
    plot.drawn = DrawnRange(plot.scope.range, first);
    plot.part = PartOf(plot.drawn, partsOfPlot);
    for (SeriesName& series : list.series) {
        Curve curve = ReadCurve(store, series.number, plot.scope.Records(), plot.part, plot.meaning);
        if (!curve.isEmpty()) plot.lines.push_back({std::move(series), std::move(curve)});
    }
    return plot;
}

/// 1, 2 or 5 times a power of ten, or of time what people count in, such that a range has few steps.
double NiceStep(double range, Unit unit) {
    const double rough = range / wantedSteps;
    if (unit == Unit::seconds && rough > 1)
        for (const int step : {2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400})
            if (rough <= step) return step;
    const double scale = unit == Unit::seconds && rough > 1 ? 86400 : 1;
    const double power = std::pow(10, std::floor(std::log10(rough / scale))) * scale;
    for (const double factor : {1.0, 2.0, 5.0})
        if (rough <= factor * power) return factor * power;
    return 10 * power;
}

struct VerticalAxis {
    double low = 0;
    double high = 1;
    double step = 1;

    std::vector<double> Steps() const {
        std::vector<double> steps;
        const auto count = static_cast<int>(std::clamp(std::round((high - low) / step), 0.0, 50.0));
        for (int at = 0; at <= count; ++at) {
            const double number = low + step * at;
            // What should be 0 may be nearly so.
            steps.push_back(std::fabs(number) < step / 1000 ? 0 : number);
        }
        return steps;
    }
};

/// Around all lines.
VerticalAxis VerticalAxisOf(const Plot& plot) {
    double low = plot.lines[0].curve.low;
    double high = plot.lines[0].curve.high;
    for (const Line& line : plot.lines) {
        low = std::min(low, line.curve.low);
        high = std::max(high, line.curve.high);
    }
    if (BeginsAtZero(low, high, plot.meaning.unit)) low = 0;
    constexpr double alike = 1e-9;  // numbers so near to each other have no steps between them
    if (high - low <= std::fabs(low) * alike) {
        const double room = low == 0 ? 1 : std::fabs(low) / 10;
        high += room;
        if (low != 0) low -= room;
    }
    const double step = NiceStep(high - low, plot.meaning.unit);
    return {std::floor(low / step) * step, std::ceil(high / step) * step, step};
}

void AddVerticalAxis(std::string& html, const VerticalAxis& axis, const PlotArea& area, Unit unit) {
    const std::vector<double> steps = axis.Steps();
    const std::vector<std::string> texts = DistinctTexts(steps, unit, AxisText);
    std::size_t longest = 0;
    for (const std::string& text : texts) longest = std::max(longest, text.size());
    Add(html, "<div class=yaxis style='width:calc({}ch + 1rem)'>", longest);
    for (std::size_t at = 0; at < steps.size(); ++at)
        Add(html, "<span style='top:{:.1f}%'>{}</span>", area.Y(steps[at]) / area.height * 100, texts[at]);
    html += "</div>";
}

std::int64_t TimeStep(std::int64_t range) {
    for (const std::int64_t seconds : {10, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400})
        if (range / (seconds * 1000) <= 6) return seconds * 1000;
    return 2 * dayMilliseconds;
}

/// The moments below the drawing, in UTC.
std::vector<std::int64_t> TimeSteps(const PlotArea& area) {
    const std::int64_t step = TimeStep(area.to - area.from);
    std::vector<std::int64_t> times;
    for (std::int64_t time = area.from - area.from % step + step; time <= area.to; time += step) times.push_back(time);
    return times;
}

void AddHorizontalAxis(std::string& html, const PlotArea& area) {
    const bool showsSeconds = TimeStep(area.to - area.from) < minuteMilliseconds;
    const std::vector<std::int64_t> times = TimeSteps(area);
    constexpr std::size_t narrowTimes = 3;
    html += times.size() > narrowTimes ? "<div class='xaxis many'>" : "<div class=xaxis>";
    for (const std::int64_t time : times) {
        const double left = area.X(time) / area.width * 100;
        Add(html, "<span style='left:{:.1f}%'>{}</span>", std::clamp(left, 4.0, 96.0),
            showsSeconds ? ClockText(time) : MinuteText(time, area.to));
    }
    html += "</div>";
}

void AddGrid(std::string& html, const VerticalAxis& axis, const PlotArea& area) {
    html += "<path class=grid-line d='";
    for (const double number : axis.Steps()) Add(html, "M0 {:.1f}H{}", area.Y(number), area.width);
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
            const auto texts = DistinctTexts({point.number, point.low, point.high}, unit, ValueText);
            Add(html, "<path class=hover d='M{:.1f} 0H{:.1f}V{}H{:.1f}z'><title>{}  {}", left, right, area.height, left,
                UtcText(point.time), texts[0]);
            if (point.high > point.low) Add(html, " ({} to {})", texts[1], texts[2]);
            html += "</title></path>";
        }
    }
}

bool IsOfManySamples(const Curve& curve) {
    for (const std::vector<CurvePoint>& piece : curve.pieces)
        for (const CurvePoint& point : piece)
            if (point.isOfMany) return true;
    return false;
}

bool AnyIsOfManySamples(const Plot& plot) {
    return std::any_of(plot.lines.begin(), plot.lines.end(),
                       [](const Line& line) { return IsOfManySamples(line.curve); });
}

void AddLines(std::string& html, const Plot& plot, const PlotArea& area) {
    const std::vector<Line>& lines = plot.lines;
    if (lines.size() <= maxBands)
        for (std::size_t at = 0; at < lines.size(); ++at)
            if (IsOfManySamples(lines[at].curve))
                Add(html, "<path class='band line{}' d='{}'/>", at, BandPath(lines[at].curve, area));
    for (std::size_t at = 0; at < lines.size(); ++at) {
        Add(html, "<path class='line line{}' d='{}'/>", at, LinePath(lines[at].curve, area));
        if (lines[at].curve.points() < maxDots)
            Add(html, "<path class='line dots line{}' d='{}'/>", at, DotPath(lines[at].curve, area));
    }
}

/// "5 seconds", "1 minute".
std::string PeriodText(std::int64_t milliseconds) {
    const auto text = [](std::int64_t count, const char* word) {
        return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
    };
    if (milliseconds < minuteMilliseconds) return text(milliseconds / 1000, "second");
    if (milliseconds < hourMilliseconds) return text(milliseconds / minuteMilliseconds, "minute");
    return text(milliseconds / hourMilliseconds, "hour");
}

void AddDrawing(std::string& html, const Plot& plot) {
    const VerticalAxis axis = VerticalAxisOf(plot);
    const PlotArea area{drawingWidth, drawingHeight, plot.drawn.from, plot.drawn.to, axis.low, axis.high};
    html += "<div class='card plot'>";
    AddVerticalAxis(html, axis, area, plot.meaning.unit);
    Add(html, "<svg viewBox='0 0 {} {}' preserveAspectRatio=none role=img aria-label=\"{}, the numbers are below\">",
        drawingWidth, drawingHeight, Escape(MemberTitle(plot.member)));
    AddGrid(html, axis, area);
    AddLines(html, plot, area);
    if (plot.lines.size() == 1) AddHoverColumns(html, plot.lines[0], area, plot);
    html += "</svg>";
    AddHorizontalAxis(html, area);
    html += "</div>\n";
    if (!AnyIsOfManySamples(plot)) return;
    Add(html, "<p class=soft>Lines are averages of {}{}.</p>\n", PeriodText(plot.part),
        plot.lines.size() <= maxBands ? "; what is tinted lies between the smallest and the largest number in them"
                                      : "");
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
        const auto texts = DistinctTexts({curve.last, curve.low, curve.high}, unit, ValueText);
        Add(html,
            "<tr><td><svg class=swatch viewBox='0 0 14 8' aria-hidden=true><path class='line line{}' d='M0 "
            "4H14'/></svg>"
            "<a href=\"{}\">{}</a></td><td class=num>{}</td><td class=num>{}</td><td class=num>{}</td></tr>\n",
            at, Escape(PlotPath(plot.scope, series)), Escape(LineTitle(series)), texts[0], texts[1], texts[2]);
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

/// Ways to what is not drawn, and to the same value of all agents.
void AddOthers(std::string& html, const Plot& plot) {
    if (!plot.others.empty()) {
        const std::size_t named = std::min(plot.others.size(), othersNamed);
        html += "<p class=soft>Not drawn: ";
        for (std::size_t at = 0; at < named; ++at)
            Add(html, "{}<a href=\"{}\">{}</a>", at == 0 ? "" : ", ", Escape(PlotPath(plot.scope, plot.others[at])),
                Escape(LineTitle(plot.others[at])));
        if (named < plot.others.size() || plot.more)
            Add(html, ", … {}{} more; the filter finds them", plot.more ? "more than " : "",
                plot.others.size() - named);
        html += "</p>\n";
    }
    if (!plot.scope.filter.agent) return;
    Scope scope = plot.scope;
    scope.filter.agent.reset();
    scope.filter.device.reset();
    Add(html, "<p><a href=\"/plot{}\">The same value of all agents</a></p>\n", Escape(MemberQuery(scope, plot.member)));
}

std::string PlotBody(const Plot& plot) {
    std::string html;
    AddSectionTitle(html, MemberTitle(plot.member), "/plot", MemberQuery(plot.scope, plot.member));
    if (plot.meaning.kind == ValueKind::counter) html += "<p class=soft>A counter, shown as its rate.</p>\n";
    if (plot.lines.empty()) return html + "<p>No number of this value was collected in this time.</p>\n";
    AddDrawing(html, plot);
    AddLegend(html, plot);
    AddOthers(html, plot);
    AddPoints(html, plot);
    return html;
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
    frame.controls = ScopeControls(plot.scope, ReadFilterChoices(store, choicesRead), frame.path, plot.member);
    frame.body = PlotBody(plot);
    frame.fragment = "/plot/fragment";
    frame.refreshSeconds = refreshSeconds;
    return Document(frame);
}

Table PlotTable(Store& store, const ServletRequest& request) {
    return PointTable(ReadPlot(store, request, maxTableLines));
}

}  // namespace kv::lab
