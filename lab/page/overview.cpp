#include "lab/page/overview.h"

#include "lab/page/agents.h"
#include "lab/page/first_minute.h"
#include "lab/page/frame.h"
#include "lab/page/problems.h"
#include "lab/page/record_html.h"
#include "lab/page/records.h"
#include "lab/page/requests.h"
#include "lab/page/tiles.h"
#include "lab/page/tracks.h"
#include "lab/page/value_cards.h"

namespace kv::lab {

namespace {

constexpr std::size_t problemsRead = 300;
constexpr std::int64_t recordsOnPage = 10;
constexpr std::int64_t refusalsRead = 50;
constexpr std::int64_t choicesRead = 200;
constexpr std::int64_t awaitedTime = 3'600'000;  // an agent that uploads nothing for longer is a silent one

/// The longer the range, the less a few seconds change.
int RefreshSeconds(const Scope& scope) { return scope.choice == &rangeChoices[0] ? 3 : 20; }

/// Agents that have uploaded nothing yet, as far as the filter is about agents.
AwaitedAgents ReadAwaited(Store& store, const Scope& scope) {
    const Filter& filter = scope.filter;
    if (filter.device || filter.name || filter.failedOnly) return {};
    std::vector<Agent> agents = AgentsWithoutUpload(store, scope.range.to - awaitedTime);
    std::erase_if(agents, [&](const Agent& agent) { return filter.agent && *filter.agent != agent.details.key; });
    return SplitAwaited(agents, scope.range.to);
}

/// The refused uploads of the range, of the agent if there is one in the filter.
std::vector<Refusal> RefusalsOf(Store& store, const Scope& scope) {
    std::vector<Refusal> refusals = LatestRefusals(store, refusalsRead);
    std::erase_if(refusals, [&](const Refusal& refusal) {
        return refusal.time < scope.range.from || (scope.filter.agent && *scope.filter.agent != refusal.agent);
    });
    return refusals;
}

void AddLatest(std::string& html, Store& store, const Scope& scope) {
    const std::vector<HistoryRecord> records = ReadHistory(store, scope.Records(), scope.filter, {}, recordsOnPage);
    if (!records.empty()) AddRecords(html, records, scope, recordsOnPage);
}

/// Says when the newest record came, if that is before the range.
void AddNothingCame(std::string& html, const Summary& summary, const Scope& scope) {
    if (summary.records > 0 || summary.lastCollected == 0) return;
    Add(html, "<p>No record was collected in the last {}; the newest is of <b>{}</b>.</p>\n", scope.choice->title,
        MinuteText(summary.lastCollected, scope.range.to));
}

std::string Fragment(Store& store, const Scope& scope) {
    const std::int64_t now = scope.range.to;
    const Summary summary = Summarize(store, scope.Records(), scope.filter, now - silentMilliseconds);
    std::string html;
    AddFaults(html, Faults(store));
    AddTiles(html, summary, scope);
    AddNothingCame(html, summary, scope);
    if (summary.agents == 0) AddConnecting(html);
    const AwaitedAgents awaited = ReadAwaited(store, scope);
    AddDueAgents(html, store, awaited.due, summary.lastCollected == 0, now);
    if (summary.agents == 0 && summary.lastCollected == 0) return html;
    AddProblems(html, ReadProblems(store, scope.Records(), scope.filter, problemsRead), RefusalsOf(store, scope),
                summary, scope);
    AddLateAgents(html, awaited.late);
    AddTracks(html, ReadTracks(store, scope.Records(), scope.filter, scope.choice->tick, maxTracks), scope);
    AddValueCards(html, store, scope);
    AddLatest(html, store, scope);
    AddRequestCounts(html, RequestStates(store));
    return html;
}

}  // namespace

std::string OverviewFragment(Store& store, const ServletRequest& request) {
    return Fragment(store, ScopeOf(request, Now()));
}

std::string OverviewPage(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeOf(request, Now());
    Frame frame;
    frame.title = TitleOf(store);
    frame.path = "/";
    frame.controls = ScopeControls(scope, ReadFilterChoices(store, choicesRead), "/");
    frame.body = Fragment(store, scope);
    frame.fragment = "/fragment";
    frame.refreshSeconds = RefreshSeconds(scope);
    return Document(frame);
}

}  // namespace kv::lab
