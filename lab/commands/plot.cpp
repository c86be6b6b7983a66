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

#include "commandline/run.h"
#include "lab/commands/command_line.h"
#include "lab/commands/known_names.h"
#include "lab/commands/moment.h"
#include "lab/page/curve.h"
#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t plotsShown = 6;
constexpr std::size_t plotsNamed = 12;
constexpr std::int64_t seriesRead = 200;
constexpr int plotRows = 8;
constexpr int partsOfTable = 240;
constexpr int labelWidth = 12;
constexpr int usualColumns = 80;
constexpr int maxColumns = 400;

struct Plotted {
    SeriesName series;
    Unit unit = Unit::none;
    Curve curve;
};

bool Changes(const Plotted& plotted) { return plotted.curve.high > plotted.curve.low; }

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

/// Whether the terminal shows UTF-8, by its locale.
bool ShowsUtf8() {
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

/// "LAB1 · Disks / FreeSpace: 75.7 GB"
std::string TitleOf(const Plotted& plotted) {
    const SeriesName& series = plotted.series;
    std::string title = SourceTitle({0, series.agent, series.device, series.name, 0, false});
    constexpr std::string_view dot = "·";
    while (!ShowsUtf8() && title.find(dot) != std::string::npos) title.replace(title.find(dot), dot.size(), "-");
    return OneLine(title + " " + MemberTitle(series.member) + ": " + ValueText(plotted.curve.last, plotted.unit));
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
    const Curve& curve = plotted.curve;
    PrintLine(TitleOf(plotted));
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

std::optional<std::string> MemberOf(const Given& given) {
    return Has(given, "--member") ? std::optional(Value(given, "--member")) : std::nullopt;
}

struct Plots {
    std::vector<Plotted> plots;
    bool more = false;  // others were not read
};

/// Those of the values that are asked for, by their names in the database or by those of the page.
SeriesList WantedSeries(Store& store, const Given& given, const Range& range) {
    const std::optional<std::string> member = MemberOf(given);
    SeriesList list = ReadSeries(store, range, FilterOf(given), member, seriesRead);
    if (!member || !list.series.empty()) return list;
    constexpr std::int64_t seriesSearched = 5000;
    list = ReadSeries(store, range, FilterOf(given), std::nullopt, seriesSearched);
    std::erase_if(list.series, [&](const SeriesName& series) { return MemberTitle(series.member) != *member; });
    return list;
}

Plots ReadPlots(Store& store, const Given& given, const Range& range, int parts) {
    const std::int64_t part = std::max<std::int64_t>((range.to - range.from) / parts, 1);
    SeriesList list = WantedSeries(store, given, range);
    Plots read{{}, list.more};
    for (SeriesName& series : list.series) {
        const Meaning meaning = MeaningOf(series.member);
        Curve curve = ReadCurve(store, series.number, range, part, meaning);
        if (!curve.isEmpty()) read.plots.push_back({std::move(series), meaning.unit, std::move(curve)});
    }
    // What changes comes first.
    std::stable_partition(read.plots.begin(), read.plots.end(), Changes);
    return read;
}

/// Draws what changes, or the one value that was read, and names the rest.
void PrintPlots(const Plots& read, const Range& range, int columns) {
    const Blocks& blocks = ShowsUtf8() ? unicodeBlocks : asciiBlocks;
    std::size_t drawn = 0;
    std::size_t named = 0;
    for (const Plotted& plotted : read.plots) {
        if (drawn < plotsShown && (Changes(plotted) || read.plots.size() == 1)) {
            PrintPlot(plotted, range, columns, blocks);
            ++drawn;
        } else if (named < plotsNamed) {
            PrintLine((Changes(plotted) ? "not drawn: " : "unchanged: ") + TitleOf(plotted));
            ++named;
        }
    }
    const std::size_t left = read.plots.size() - drawn - named;
    if (left > 0 || read.more) PrintLine(fmt::format("{}{} more", read.more ? "more than " : "", left));
    if (named > 0) PrintLine("--member, --agent and --device choose what is drawn");
}

Table NumbersOf(const std::vector<Plotted>& plots) {
    Table table{"points",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"member", "Value"},
                 {"time", "Time"},
                 {"number", "Number"},
                 {"low", "Smallest"},
                 {"high", "Largest"},
                 {"unit", "Unit"}},
                {}};
    for (const auto& [series, unit, curve] : plots)
        for (const std::vector<CurvePoint>& piece : curve.pieces)
            for (const CurvePoint& point : piece)
                table.rows.push_back({series.agent, series.device, series.name, series.member, Moment{point.time},
                                      point.number, point.low, point.high, std::string(UnitName(unit))});
    return table;
}

void RunPlot(const Given& given) {
    if (Has(given, "--csv") && Has(given, "--json")) throw UsageError("only one of --csv and --json can be given");
    Store store = OpenExisting(given);
    const std::int64_t now = Now();
    const Range range{MomentOf("--since", Value(given, "--since", "1h"), now), now};
    if (range.from >= range.to) throw UsageError("--since takes a time that has been");
    const bool isDrawn = !Has(given, "--csv") && !Has(given, "--json");
    const int columns = Columns() - labelWidth;
    const Plots read = ReadPlots(store, given, range, isDrawn ? columns : partsOfTable);
    if (read.plots.empty()) {
        RequireKnown(store, FilterOf(given));
        RequireKnownMember(store, FilterOf(given), MemberOf(given));
        throw NotFoundError("no number of this record was collected since " + UtcText(range.from));
    }
    if (isDrawn) return PrintPlots(read, range, columns);
    const Table table = NumbersOf(read.plots);
    const std::string text = Has(given, "--csv") ? TableCsv(table) : TableJson(table) + "\n";
    std::fputs(text.c_str(), stdout);
    commandline::FlushOutput();
}

constexpr Word plotWords[] = {{"NAME", "the record whose values are drawn"}};

constexpr Option plotOptions[] = {
    databaseOption,
    {"--member", "MEMBER", "only this value, as the page names it, such as '/ FreeSpace', or an OID"},
    {"--agent", "KEY", "only this agent's"},
    {"--device", "KEY", "only those of this polled device or slave"},
    {"--since", "TIME",
     "from then on: 15m, 2h or 7d ago, or a time in UTC such as '2026-11-27 12:00'; the default is 1h"},
    {"--csv", "", "the numbers as CSV: for each 240th of the time their average, the smallest and the largest"},
    {"--json", "", "the same as JSON"},
};

constexpr Command commands[] = {
    {"plot", "Draws the numeric values of a record over time, as wide as the terminal; a counter is drawn as its rate.",
     plotWords, plotOptions, RunPlot},
};

}  // namespace

std::span<const Command> PlotCommands() { return commands; }

}  // namespace kv::lab
