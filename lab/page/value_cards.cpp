#include "lab/page/value_cards.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "lab/page/curve.h"
#include "lab/page/frame.h"
#include "lab/page/record_html.h"

namespace kv::lab {

namespace {

/// Cards that a page shows, and the series that are looked at to find those that change.
constexpr std::size_t cardsOnPage = 48;
constexpr std::int64_t seriesRead = 120;
constexpr std::int64_t maxTableValues = 10000;
constexpr std::int64_t partsOfCard = 80;

constexpr double drawingWidth = 230;
constexpr double drawingHeight = 52;
constexpr double margin = 4;  // above and below the line

struct Card {
    SeriesName series;
    Meaning meaning;
    Curve curve;
    bool hasOtherRows = false;  // its record has

    bool changes() const { return curve.high > curve.low; }
};

struct Cards {
    std::vector<Card> cards;
    Range drawn;
};

PlotArea AreaOf(const Card& card, const Range& drawn) {
    const Curve& curve = card.curve;
    PlotArea area{drawingWidth, drawingHeight, drawn.from, drawn.to, curve.low, curve.high};
    if (BeginsAtZero(curve.low, curve.high, card.meaning.unit)) area.low = 0;
    // What stands still over 0 lies in the middle, and 0 itself below.
    if (area.low == 0 && !card.changes()) area.high = curve.high > 0 ? 2 * curve.high : 1;
    const double room = (area.high - area.low) * margin / (drawingHeight - 2 * margin);
    area.high += room;
    if (area.low != 0) area.low -= room;
    return area;
}

/// What lies under the line is filled only where it is a share of the whole.
void AddSparkline(std::string& html, const Card& card, const Range& drawn) {
    if (card.curve.points() < 2) {
        const bool isRate = card.meaning.kind == ValueKind::counter;
        Add(html, "<p class='wait name'>a curve after the {} record</p>", isRate ? "third" : "second");
        return;
    }
    const PlotArea area = AreaOf(card, drawn);
    Add(html, "<svg viewBox='0 0 {} {}' preserveAspectRatio=none aria-hidden=true>", drawingWidth, drawingHeight);
    if (area.low == 0) Add(html, "<path class=under d='{}'/>", FilledPath(card.curve, area));
    Add(html, "<path class=line d='{}'/></svg>", LinePath(card.curve, area));
}

/// The row comes first where it tells cards apart, as the end of a long line is cut off.
void AddPlace(std::string& html, const std::string& row, const std::string& source, bool isRowFirst) {
    if (row.empty())
        Add(html, "<div class=name>{}</div>", source);
    else if (isRowFirst)
        Add(html, "<div class='name place'><span>{}</span><span>· {}</span></div>", row, source);
    else
        Add(html, "<div class=name>{} · {}</div>", source, row);
}

void AddCard(std::string& html, const Card& card, const Scope& scope, const Range& drawn) {
    const SeriesName& series = card.series;
    const std::string source = Escape(SourceTitle({0, series.agent, series.device, series.name}));
    const ShownMember member = ShowMember(series.member);
    const Unit unit = card.meaning.unit;
    Add(html, "<a class='card value' href=\"{}\" title=\"{} {}\"><div class=member>{}</div>",
        Escape(PlotPath(scope, series)), source, Escape(MemberTitle(series.member)), Escape(member.property));
    AddPlace(html, Escape(member.row), source, card.hasOtherRows);
    Add(html, "<div class=now>{}</div>", ValueText(card.curve.last, unit));
    AddSparkline(html, card, drawn);
    const std::vector<std::string> ends = DistinctTexts({card.curve.low, card.curve.high}, unit, ValueText);
    Add(html, "<div class=name>min {} · max {}</div></a>\n", ends[0], ends[1]);
}

/// What changes comes before what stands still, what is expected to move before what is not, and before all of these
/// what came often before what came only now and then.
void Rank(std::vector<Card>& cards) {
    std::size_t most = 0;
    for (const Card& card : cards) most = std::max(most, card.curve.points());
    std::stable_sort(cards.begin(), cards.end(), [most](const Card& one, const Card& other) {
        const auto rank = [most](const Card& card) {
            return std::tuple(card.curve.points() * 2 < most, !card.changes(), UsualCourse(card.series.member));
        };
        return rank(one) < rank(other);
    });
}

/// Marks the cards of records whose values have several rows.
void MarkRows(std::vector<Card>& cards) {
    std::map<std::tuple<std::string, std::string, std::string>, std::set<std::string>> rows;
    const auto rowsOf = [&rows](const SeriesName& series) -> std::set<std::string>& {
        return rows[{series.agent, series.device, series.name}];
    };
    for (const Card& card : cards) rowsOf(card.series).insert(ShowMember(card.series.member).row);
    for (Card& card : cards) card.hasOtherRows = rowsOf(card.series).size() > 1;
}

/// All cards have one axis of time.
Cards ReadCards(Store& store, const Scope& scope, const std::vector<SeriesName>& series) {
    std::int64_t first = scope.range.to;
    for (const SeriesName& name : series)
        first = std::min(first, ReadFirstTime(store, name.number, scope.Records()).value_or(first));
    Cards read{{}, DrawnRange(scope.range, first)};
    for (const SeriesName& name : series) {
        const Meaning meaning = MeaningOf(name.member);
        Curve curve = ReadCurve(store, name.number, scope.Records(), PartOf(read.drawn, partsOfCard), meaning);
        if (!curve.isEmpty()) read.cards.push_back({name, meaning, std::move(curve)});
    }
    MarkRows(read.cards);
    Rank(read.cards);
    return read;
}

}  // namespace

std::string PlotPath(const Scope& scope, const SeriesName& series) {
    const Source source{0, series.agent, series.device, series.name};
    return "/plot" + QueryWithMember(SourceQuery(scope, source), series.member);
}

void AddValueCards(std::string& html, Store& store, const Scope& scope) {
    const SeriesList list = ReadSeries(store, scope.Records(), scope.filter, std::nullopt, seriesRead);
    const auto [cards, drawn] = ReadCards(store, scope, list.series);
    if (cards.empty()) return;
    html += "<section id=values>";
    AddSectionTitle(html, "Values", "/values", ScopeQuery(scope));
    html += "<div class=cards>\n";
    const std::size_t shown = std::min(cards.size(), cardsOnPage);
    for (std::size_t at = 0; at < shown; ++at) AddCard(html, cards[at], scope, drawn);
    html += "</div>\n";
    if (list.more) {
        Add(html, "<p class=soft>… more than {} in all; narrow it down by the filter.</p>\n", seriesRead);
    } else {
        AddMore(html, static_cast<std::int64_t>(cards.size() - shown));
    }
    html += "</section>\n";
}

Table ValueTable(Store& store, const Scope& scope) {
    Table table{"values",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"member", "Value"},
                 {"number", "Number"},
                 {"unit", "Unit"},
                 {"counter", "Counter"},
                 {"collected", "Collected"}},
                {}};
    for (const LatestValue& value : ReadLatestValues(store, scope.filter, scope.range.from, maxTableValues)) {
        const Meaning meaning = MeaningOf(value.series.member);
        const bool isCounter = meaning.kind == ValueKind::counter;
        table.rows.push_back({value.series.agent, value.series.device, value.series.name, value.series.member,
                              MeantNumber(value.number, meaning), std::string(isCounter ? "" : UnitName(meaning.unit)),
                              isCounter, Moment{value.collected}});
    }
    return table;
}

}  // namespace kv::lab
