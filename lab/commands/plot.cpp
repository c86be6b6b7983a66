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
constexpr std::size_t seriesRead = 200;
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
    return std::clamp(columns > 0 ? columns : usualColumns, labelWidth + 20, maxColumns);
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

/// "LAB1 · Disks"
std::string SourceOf(const Plotted& plotted) {
    const SeriesName& series = plotted.series;
    std::string title = SourceTitle({0, series.agent, series.device, series.name, 0, false});
    constexpr std::string_view dot = "·";
    while (!ShowsUtf8() && title.find(dot) != std::string::npos) title.replace(title.find(dot), dot.size(), "-");
    return OneLine(title);
}

std::string NameOf(const Plotted& plotted) { return OneLine(MemberTitle(plotted.series.member)); }

std::string LastOf(const Plotted& plotted) { return ValueText(plotted.curve.last, plotted.unit); }

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
    PrintLine(fmt::format("{} {}: {}", SourceOf(plotted), NameOf(plotted), LastOf(plotted)));
    const std::vector<int> heights = HeightsOf(curve, range, columns);
    const bool isFlat = !Changes(plotted);
    for (int row = plotRows - 1; row >= 0; --row) {
        std::string label;
        if (row == (isFlat ? plotRows / 2 : plotRows - 1)) label = AxisText(curve.high, plotted.unit);
        if (row == 0 && !isFlat) label = AxisText(curve.low, plotted.unit);
        std::string line = fmt::format("{:>{}} |", label, labelWidth - 2);
        for (const int height : heights) line += blocks[static_cast<std::size_t>(std::clamp(height - row * 8, 0, 8))];
        line.erase(line.find_last_not_of(' ') + 1);
        PrintLine(line);
    }
    const std::string from = MinuteText(range.from, range.to);
    const std::string to = MinuteText(range.to, range.to) + " UTC";
    const int room = columns - static_cast<int>(from.size()) - 1;
    PrintLine(fmt::format("{:{}}{} {:>{}}\n", "", labelWidth, from, to, std::max(room, 0)));
}

std::optional<std::string> MemberOf(const Given& given) {
    return Has(given, "--member") ? std::optional(StoredValue(given, "--member")) : std::nullopt;
}

Filter PlotFilter(const Given& given) {
    Filter filter = FilterOf(given);
    filter.name = StoredValue(given, "NAME");
    return filter;
}

struct Plots {
    std::vector<Plotted> plots;
    bool isFull = false;  // others were not read
    std::size_t series = 0;
};

/// Those of the values that are asked for.
SeriesList WantedSeries(Store& store, const Given& given, const Range& range) {
    const std::optional<std::string> member = MemberOf(given);
    SeriesList list = ReadSeries(store, range, PlotFilter(given), member, seriesRead);
    if (!member || !list.series.empty()) return list;
    list = ReadSeries(store, range, PlotFilter(given), std::nullopt, seriesSearched);
    std::erase_if(list.series, [&](const SeriesName& series) { return !IsCalled(series.member, *member); });
    if (list.series.size() <= seriesRead) return list;
    list.series.resize(seriesRead);
    list.more = true;
    return list;
}

Plots ReadPlots(Store& store, const Given& given, const Range& range, int parts) {
    const std::int64_t part = std::max<std::int64_t>((range.to - range.from) / parts, 1);
    SeriesList list = WantedSeries(store, given, range);
    Plots read{{}, list.more, list.series.size()};
    for (SeriesName& series : list.series) {
        const Meaning meaning = MeaningOf(series.member);
        Curve curve = ReadCurve(store, series.number, range, part, meaning);
        if (!curve.isEmpty()) read.plots.push_back({std::move(series), meaning.unit, std::move(curve)});
    }
    // What changes comes first.
    std::stable_partition(read.plots.begin(), read.plots.end(), Changes);
    return read;
}

/// One line with as many of the texts as a terminal of so many columns has room for, but at least one.
void PrintList(std::string line, const std::vector<std::string>& texts, std::size_t columns) {
    const auto width = [](const std::string& text) {
        return static_cast<std::size_t>(
            std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
    };
    std::size_t shown = 0;
    for (; shown < texts.size(); ++shown) {
        const std::string more = texts.size() - shown > 1 ? fmt::format(" and {} more", texts.size() - shown - 1) : "";
        const std::string next = (shown > 0 ? ", " : " ") + texts[shown];
        if (shown > 0 && width(line + next + more) > columns) break;
        line += next;
    }
    PrintLine(shown < texts.size() ? fmt::format("{} and {} more", line, texts.size() - shown) : line);
}

/// Draws what changes, or the one value that was read, and names the rest.
void PrintPlots(const std::vector<Plotted>& plots, const Range& range, int columns) {
    const Blocks& blocks = ShowsUtf8() ? unicodeBlocks : asciiBlocks;
    const bool isOneSource = std::all_of(plots.begin(), plots.end(), [&](const Plotted& plotted) {
        return SourceOf(plotted) == SourceOf(plots.front());
    });
    std::size_t drawn = 0;
    std::vector<std::string> notDrawn;
    std::vector<std::string> unchanged;
    for (const Plotted& plotted : plots) {
        const std::string name = (isOneSource ? "" : SourceOf(plotted) + " ") + NameOf(plotted);
        if (drawn < plotsShown && (Changes(plotted) || plots.size() == 1)) {
            PrintPlot(plotted, range, columns - labelWidth, blocks);
            ++drawn;
        } else if (Changes(plotted)) {
            notDrawn.push_back(name);
        } else {
            unchanged.push_back(name + " " + LastOf(plotted));
        }
    }
    if (!notDrawn.empty()) PrintList("not drawn:", notDrawn, static_cast<std::size_t>(columns));
    if (!unchanged.empty()) PrintList("unchanged:", unchanged, static_cast<std::size_t>(columns));
    if (!notDrawn.empty()) PrintLine("--member, --agent and --device choose what is drawn");
}

/// Tells on standard error what the plots do not show.
void TellOfTheRest(Store& store, const Given& given, const Plots& read, const Range& range) {
    if (read.isFull)
        PrintNote(fmt::format("only {} values were read; --member, --agent and --device choose others", read.series));
    if (!read.plots.empty()) return;
    if (read.series > 0)
        return PrintNote("too few numbers of these counters for a rate were collected since " + UtcText(range.from));
    RequireKnown(store, PlotFilter(given));
    RequireKnownMember(store, PlotFilter(given), MemberOf(given));
    PrintNote("no number of this record was collected since " + UtcText(range.from) +
              NewestText(store, PlotFilter(given)));
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
    const int columns = Columns();
    const Plots read = ReadPlots(store, given, range, isDrawn ? columns - labelWidth : partsOfTable);
    TellOfTheRest(store, given, read, range);
    if (isDrawn) return PrintPlots(read.plots, range, columns);
    const Table table = NumbersOf(read.plots);
    const std::string text = Has(given, "--csv") ? TableCsv(table) : TableJson(table) + "\n";
    std::fputs(text.c_str(), stdout);
    commandline::FlushOutput();
}

constexpr Word plotWords[] = {{"NAME", "the record whose values are drawn"}};

constexpr Option plotOptions[] = {
    databaseOption,
    {"--member", "MEMBER",
     "only this value, as the page names it, such as '/ FreeSpace', or of all rows: FreeSpace, ifInOctets, an OID"},
    {"--agent", "KEY", "only this agent's"},
    {"--device", "KEY", "only those of this polled device or slave"},
    {"--since", "TIME",
     "from then on: 15m, 2h or 7d ago, or a time in UTC such as 13:10 or '2026-11-27 13:10'; the default is 1h"},
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
