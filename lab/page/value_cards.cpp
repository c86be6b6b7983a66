#include "lab/page/value_cards.h"

#include <algorithm>

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

    bool changes() const { return curve.high > curve.low; }
    std::size_t points() const {
        std::size_t count = 0;
        for (const std::vector<CurvePoint>& piece : curve.pieces) count += piece.size();
        return count;
    }
};

void AddSparkline(std::string& html, const Card& card, const Scope& scope) {
    PlotArea area{drawingWidth, drawingHeight, scope.range.from, scope.range.to, card.curve.low, card.curve.high};
    const double room = (card.curve.high - card.curve.low) * margin / (drawingHeight - 2 * margin);
    area.low -= room;
    area.high += room;
    Add(html,
        "<svg viewBox='0 0 {} {}' preserveAspectRatio=none aria-hidden=true><path class=under d='{}'/>"
        "<path class=line d='{}'/></svg>",
        drawingWidth, drawingHeight, FilledPath(card.curve, area), LinePath(card.curve, area));
}

void AddCard(std::string& html, const Card& card, const Scope& scope) {
    const SeriesName& series = card.series;
    const std::string source = Escape(SourceTitle({0, series.agent, series.device, series.name}));
    const std::string member = Escape(MemberTitle(series.member));
    const Unit unit = card.meaning.unit;
    Add(html,
        "<a class='card value' href=\"{}\" title=\"{} {}\"><div class=member>{}</div><div class=name>{}</div>"
        "<div class=now>{}</div>",
        Escape(PlotPath(scope, series)), source, member, member, source, ValueText(card.curve.last, unit));
    AddSparkline(html, card, scope);
    Add(html, "<div class=name>min {} · max {}</div></a>\n", ValueText(card.curve.low, unit),
        ValueText(card.curve.high, unit));
}

/// What changes comes before what stands still, and of both what came often before what came only now and then.
void Rank(std::vector<Card>& cards) {
    std::size_t most = 0;
    for (const Card& card : cards) most = std::max(most, card.points());
    std::stable_sort(cards.begin(), cards.end(), [most](const Card& one, const Card& other) {
        const auto rank = [most](const Card& card) { return std::pair(card.points() * 2 < most, !card.changes()); };
        return rank(one) < rank(other);
    });
}

std::vector<Card> ReadCards(Store& store, const Scope& scope, const std::vector<SeriesName>& series) {
    std::vector<Card> cards;
    for (const SeriesName& name : series) {
        const Meaning meaning = MeaningOf(name.member);
        const std::int64_t part = scope.choice->milliseconds / partsOfCard;
        Curve curve = ReadCurve(store, name.number, scope.Records(), part, meaning);
        if (!curve.isEmpty()) cards.push_back({name, meaning, std::move(curve)});
    }
    Rank(cards);
    return cards;
}

}  // namespace

std::string QueryWithMember(const std::string& query, std::string_view member) {
    return query + (query.empty() ? "?" : "&") + "member=" + UrlText(member);
}

std::string PlotPath(const Scope& scope, const SeriesName& series) {
    const Source source{0, series.agent, series.device, series.name};
    return "/plot" + QueryWithMember(SourceQuery(scope, source), series.member);
}

void AddValueCards(std::string& html, Store& store, const Scope& scope) {
    const SeriesList list = ReadSeries(store, scope.Records(), scope.filter, std::nullopt, seriesRead);
    const std::vector<Card> cards = ReadCards(store, scope, list.series);
    if (cards.empty()) return;
    html += "<section id=values>";
    AddSectionTitle(html, "Values", "/values", ScopeQuery(scope));
    html += "<div class=cards>\n";
    const std::size_t shown = std::min(cards.size(), cardsOnPage);
    for (std::size_t at = 0; at < shown; ++at) AddCard(html, cards[at], scope);
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
