// kvlab plot.
#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "lab/commands/command_line.h"
#include "lab/commands/moment.h"
#include "lab/page/curve.h"
#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t plotsShown = 6;
constexpr std::int64_t seriesRead = 200;
constexpr int plotRows = 8;
constexpr int labelWidth = 12;
constexpr int usualColumns = 80;
constexpr int maxColumns = 400;

struct Plotted {
    SeriesName series;
    Unit unit = Unit::none;
    Curve curve;
};

/// Of the terminal; COLUMNS comes first, as with other programs.
int Columns() {
    winsize size{};
    const char* const told = std::getenv("COLUMNS");
    auto columns = static_cast<int>(told ? std::strtol(told, nullptr, 10) : 0);
    if (columns <= 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) columns = size.ws_col;
    return std::clamp(columns > 0 ? columns : usualColumns, labelWidth + 10, maxColumns);
}

/// What stands for nothing up to eight eighths of a row.
using Blocks = std::array<std::string_view, 9>;
constexpr Blocks unicodeBlocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr Blocks asciiBlocks{" ", ".", ".", ".", ":", ":", ":", "#", "#"};

const Blocks& BlocksOfLocale() {
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? unicodeBlocks : asciiBlocks;
}

/// The line's number at a time between the ends of a piece; NaN elsewhere.
double NumberAt(const Curve& curve, std::int64_t time, std::int64_t halfColumn) {
    for (const std::vector<CurvePoint>& piece : curve.pieces) {
        if (time < piece.front().time - halfColumn || time > piece.back().time + halfColumn) continue;
        const auto next = std::lower_bound(piece.begin(), piece.end(), time,
                                           [](const CurvePoint& point, std::int64_t at) { return point.time < at; });
        if (next == piece.begin()) return next->number;
        const CurvePoint& before = *(next - 1);
        if (next == piece.end()) return before.number;
        const double share = static_cast<double>(time - before.time) / static_cast<double>(next->time - before.time);
        return before.number + (next->number - before.number) * share;
    }
    return NAN;
}

/// How many eighths of a row each column is high; -1 where there is a gap.
std::vector<int> HeightsOf(const Curve& curve, const Range& range, int columns) {
    const std::int64_t step = std::max<std::int64_t>((range.to - range.from) / columns, 1);
    std::vector<int> heights;
    for (int column = 0; column < columns; ++column) {
        const double number = NumberAt(curve, range.from + step * column + step / 2, step / 2);
        const double share = curve.high > curve.low ? (number - curve.low) / (curve.high - curve.low) : 0.5;
        heights.push_back(std::isnan(number) ? -1 : 1 + static_cast<int>(std::lround(share * (plotRows * 8 - 1))));
    }
    return heights;
}

void PrintPlot(const Plotted& plotted, const Range& range, int columns, const Blocks& blocks) {
    const SeriesName& series = plotted.series;
    const Curve& curve = plotted.curve;
    PrintLine(OneLine(SourceTitle({0, series.agent, series.device, series.name, 0, false}) + " " +
                      MemberTitle(series.member) + ": " + ValueText(curve.last(), plotted.unit)));
    const std::vector<int> heights = HeightsOf(curve, range, columns);
    for (int row = plotRows - 1; row >= 0; --row) {
        std::string label;
        if (row == plotRows - 1) label = AxisText(curve.high, plotted.unit);
        if (row == 0) label = AxisText(curve.low, plotted.unit);
        std::string line = fmt::format("{:>{}} |", label, labelWidth - 2);
        for (const int height : heights) line += blocks[static_cast<std::size_t>(std::clamp(height - row * 8, 0, 8))];
        line.erase(line.find_last_not_of(' ') + 1);
        PrintLine(line);
    }
    const std::string from = MinuteText(range.from, range.to);
    const std::string to = MinuteText(range.to, range.to) + " UTC";
    const int room = columns - static_cast<int>(from.size());
    PrintLine(fmt::format("{:{}}{}{:>{}}\n", "", labelWidth, from, to, std::max(room, 0)));
}

Filter FilterOf(const Given& given) {
    Filter filter;
    filter.name = Value(given, "NAME");
    if (Has(given, "--agent")) filter.agent = Value(given, "--agent");
    if (Has(given, "--device")) filter.device = Value(given, "--device");
    return filter;
}

/// Says which names there are, when the one that was given is not among them.
void RequireName(Store& store, const std::string& name) {
    const std::vector<std::string> names = ReadFilterChoices(store, seriesRead).names;
    if (std::find(names.begin(), names.end(), name) != names.end()) return;
    constexpr std::size_t named = 12;
    std::string list;
    for (std::size_t at = 0; at < std::min(names.size(), named); ++at)
        list += (at > 0 ? ", " : "") + OneLine(names[at]);
    throw NotFoundError("no record has the name '" + name + "'" +
                        (names.empty() ? "; nothing has come yet" : "; those that came: " + list));
}

std::vector<Plotted> ReadPlots(Store& store, const Given& given, const Range& range, int columns) {
    const std::optional<std::string> member =
        Has(given, "--member") ? std::optional(Value(given, "--member")) : std::nullopt;
    const std::int64_t part = std::max<std::int64_t>((range.to - range.from) / columns, 1);
    std::vector<Plotted> plots;
    for (SeriesName& series : ReadSeries(store, range, FilterOf(given), member, seriesRead).series) {
        const Meaning meaning = MeaningOf(series.member);
        Curve curve = ReadCurve(store, series.number, range, part, meaning);
        if (!curve.isEmpty()) plots.push_back({std::move(series), meaning.unit, std::move(curve)});
    }
    // What changes comes first.
    std::stable_partition(plots.begin(), plots.end(),
                          [](const Plotted& plotted) { return plotted.curve.high > plotted.curve.low; });
    return plots;
}

Table NumbersOf(const std::vector<Plotted>& plots) {
    Table table{"points",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"member", "Value"},
                 {"time", "Time"},
                 {"number", "Number"},
                 {"unit", "Unit"}},
                {}};
    for (const auto& [series, unit, curve] : plots)
        for (const std::vector<CurvePoint>& piece : curve.pieces)
            for (const CurvePoint& point : piece)
                table.rows.push_back({series.agent, series.device, series.name, series.member, Moment{point.time},
                                      point.number, std::string(UnitName(unit))});
    return table;
}

void RunPlot(const Given& given) {
    if (Has(given, "--csv") && Has(given, "--json")) throw UsageError("only one of --csv and --json can be given");
    Store store = OpenExisting(given);
    const std::int64_t now = Now();
    const Range range{MomentOf("--since", Value(given, "--since", "1h"), now), now};
    if (range.from >= range.to) throw UsageError("--since takes a time that has been");
    const int columns = Columns() - labelWidth;
    const std::vector<Plotted> plots = ReadPlots(store, given, range, columns);
    if (plots.empty()) RequireName(store, Value(given, "NAME"));
    if (plots.empty()) throw NotFoundError("no number of this record was collected since " + UtcText(range.from));
    if (Has(given, "--csv") || Has(given, "--json")) {
        const Table table = NumbersOf(plots);
        std::fputs((Has(given, "--csv") ? TableCsv(table) : TableJson(table)).c_str(), stdout);
        return;
    }
    const Blocks& blocks = BlocksOfLocale();
    for (std::size_t at = 0; at < std::min(plots.size(), plotsShown); ++at)
        PrintPlot(plots[at], range, columns, blocks);
    if (plots.size() > plotsShown)
        PrintLine(fmt::format("{} more; --member, --agent and --device choose", plots.size() - plotsShown));
}

constexpr Word plotWords[] = {{"NAME", "the record whose values are drawn"}};

constexpr Option plotOptions[] = {
    databaseOption,
    {"--member", "MEMBER", "only this value, as the page names it, such as '/ FreeSpace', or an OID"},
    {"--agent", "KEY", "only this agent's"},
    {"--device", "KEY", "only those of this polled device or slave"},
    {"--since", "TIME",
     "from then on: 15m, 2h or 7d ago, or a time in UTC such as '2026-11-27 12:00'; the default is 1h"},
    {"--csv", "", "the numbers as CSV"},
    {"--json", "", "the numbers as JSON"},
};

constexpr Command commands[] = {
    {"plot", "Draws the numeric values of a record over time, as wide as the terminal; a counter is drawn as its rate.",
     plotWords, plotOptions, RunPlot},
};

}  // namespace

std::span<const Command> PlotCommands() { return commands; }

}  // namespace kv::lab
