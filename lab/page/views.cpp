#include "lab/page/views.h"

#include <algorithm>
#include <charconv>

#include "lab/page/agents.h"
#include "lab/page/frame.h"
#include "lab/page/metrics.h"
#include "lab/page/overview.h"
#include "lab/page/plot.h"
#include "lab/page/problems.h"
#include "lab/page/record_html.h"
#include "lab/page/records.h"
#include "lab/page/requests.h"
#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/page/tiles.h"
#include "lab/page/tracks.h"
#include "lab/page/value_cards.h"
#include "lab/store/history.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

/// What one answer holds at most; the views of records say how to get the others.
constexpr std::int64_t recordsOnPage = 100;
constexpr std::int64_t maxTableRecords = 10000;
constexpr std::int64_t maxJsonRecords = 1000;
constexpr std::int64_t maxTableTracks = 1000;
constexpr std::size_t maxTableProblems = 10000;
constexpr std::int64_t requestsOnPage = 60;
constexpr std::int64_t plansOnPage = 20;
constexpr std::int64_t maxTableRequests = 1000;
constexpr std::int64_t answersShown = 5;
constexpr std::int64_t noticesShown = 30;
constexpr std::int64_t refusalsShown = 1000;
constexpr std::int64_t choicesRead = 200;
constexpr int refreshSeconds = 3;

constexpr std::size_t maxShownPath = 200;
constexpr const char* htmlType = "text/html; charset=utf-8";

Answer HtmlAnswer(std::string html) {
    return {200, std::move(html), htmlType, {{"Content-Security-Policy", PagePolicy()}}};
}

Scope ScopeNow(const ServletRequest& request) { return ScopeOf(request, Now()); }

std::int64_t Limit(const ServletRequest& request, std::int64_t most) {
    return std::min(NumberParameter(request, "limit", most), most);
}

// --- The overview

Answer ServePage(Store& store, const ServletRequest& request) { return HtmlAnswer(OverviewPage(store, request)); }

Answer ServeFragment(Store& store, const ServletRequest& request) {
    return HtmlAnswer(OverviewFragment(store, request));
}

Table MakeSummary(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    return SummaryTable(Summarize(store, scope.Records(), scope.filter, scope.range.to - silentMilliseconds), scope);
}

Table MakeProblems(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    return ProblemTable(ReadProblems(store, scope.Records(), scope.filter, maxTableProblems).problems);
}

Table MakeTracks(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    return TrackTable(ReadTracks(store, scope.Records(), scope.filter, scope.choice->tick, maxTableTracks));
}

Table MakeFaults(Store& store, const ServletRequest&) { return FaultTable(Faults(store)); }

Table MakeRefusals(Store& store, const ServletRequest&) { return RefusalTable(LatestRefusals(store, refusalsShown)); }

// --- Records

Answer ServeRecords(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    Frame frame;
    frame.title = "Records";
    frame.path = "/records";
    frame.controls = ScopeControls(scope, ReadFilterChoices(store, choicesRead), frame.path);
    AddRecords(frame.body, ReadHistory(store, scope.Records(), scope.filter, PlaceOf(request), recordsOnPage), scope,
               recordsOnPage);
    return HtmlAnswer(Document(frame));
}

Answer ServeRecordsCsv(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    const std::int64_t limit = Limit(request, maxTableRecords);
    return TableAnswer(RecordTable(ReadHistory(store, scope.Records(), scope.filter, PlaceOf(request), limit)),
                       TableFormat::csv);
}

/// With "after", those with a number above it, of any time and in order, for who fetches all one after the other.
Answer ServeRecordsJson(Store& store, const ServletRequest& request) {
    const Scope scope = ScopeNow(request);
    const std::int64_t limit = Limit(request, maxJsonRecords);
    const std::vector<HistoryRecord> records =
        Parameter(request, "after").empty()
            ? ReadHistory(store, scope.Records(), scope.filter, PlaceOf(request), limit)
            : ReadHistoryAfter(store, scope.filter, NumberParameter(request, "after", 0), limit);
    return {200, RecordsDocument(store, records), "application/json", {}};
}

Answer ServeRecord(Store& store, const ServletRequest& request) {
    std::string_view rest = std::string_view(request.path).substr(std::string_view("/record/").size());
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
    if (error != std::errc() || (!rest.empty() && rest != ".json"))
        throw BadRequest("a record is at /record/ and its number");
    const std::optional<WholeRecord> whole = ReadWholeRecord(store, number);
    if (!whole) return TextAnswer(404, "the database does not hold record " + std::to_string(number));
    if (!rest.empty()) return {200, RecordsDocument(store, {whole->record}), "application/json", {}};
    Frame frame;
    frame.title = SourceTitle(whole->record.source);
    AddWholeRecord(frame.body, *whole, Now());
    return HtmlAnswer(Document(frame));
}

// --- Values

Answer ServePlot(Store& store, const ServletRequest& request) { return HtmlAnswer(PlotPage(store, request)); }

Answer ServePlotFragment(Store& store, const ServletRequest& request) {
    return HtmlAnswer(PlotFragment(store, request));
}

Table MakeValues(Store& store, const ServletRequest& request) { return ValueTable(store, ScopeNow(request)); }

Answer ServeMetrics(Store& store, const ServletRequest&) { return {200, Metrics(store, Now()), metricsType, {}}; }

// --- Requests and agents

std::vector<AnsweredRequest> WithAnswers(Store& store, std::vector<Request> requests) {
    std::vector<AnsweredRequest> answered;
    for (Request& found : requests) {
        std::vector<Report> answers = AnswersTo(store, found, answersShown);
        const std::optional<std::int64_t> planFetched = ConfigurationFetched(store, found);
        answered.push_back({std::move(found), std::move(answers), planFetched});
    }
    return answered;
}

std::string RequestsBody(Store& store, const ServletRequest& request) {
    const std::string agent = Parameter(request, "agent");
    std::string html;
    AddRequests(html,
                {agent, RequestStates(store, agent), WithAnswers(store, LatestPlans(store, agent, plansOnPage)),
                 WithAnswers(store, LatestRequests(store, agent, requestsOnPage)), LatestActions(store, noticesShown)});
    return html;
}

std::string AgentsBody(Store& store, const ServletRequest&) {
    std::string html;
    AddFaults(html, Faults(store));
    AddAgents(html, Agents(store), Now());
    return html;
}

struct LivePage {
    std::string_view title;
    std::string_view path;
    std::string_view fragment;
    std::string (*body)(Store&, const ServletRequest&);
};
constexpr LivePage requestsPage{"Requests to agents", "/requests", "/requests/fragment", RequestsBody};
constexpr LivePage agentsPage{"Agents", "/agents", "/agents/fragment", AgentsBody};

template <const LivePage& page>
Answer ServeLivePage(Store& store, const ServletRequest& request) {
    Frame frame;
    frame.title = page.title;
    frame.path = page.path;
    frame.controls = "<div class=bar>" + ClockPlace(Now()) + "</div>";
    frame.body = page.body(store, request);
    frame.fragment = page.fragment;
    frame.refreshSeconds = refreshSeconds;
    return HtmlAnswer(Document(frame));
}

template <const LivePage& page>
Answer ServeLiveFragment(Store& store, const ServletRequest& request) {
    return HtmlAnswer(page.body(store, request));
}

Table MakeRequests(Store& store, const ServletRequest& request) {
    return RequestTable(WithAnswers(store, LatestRequests(store, Parameter(request, "agent"), maxTableRequests)));
}

Table MakePlans(Store& store, const ServletRequest& request) {
    return PlanTable(WithAnswers(store, LatestPlans(store, Parameter(request, "agent"), maxTableRequests)));
}

Table MakeNotices(Store& store, const ServletRequest&) { return NoticeTable(LatestActions(store, maxTableRequests)); }

/// For those who compare what was accepted with what is held, such as kvlab fleet.
Table MakeTotals(Store& store, const ServletRequest&) {
    const Totals totals = CountAll(store);
    return {"totals",
            {{"agents", "Agents"}, {"uploads", "Uploads"}, {"records", "Records"}, {"refused", "Refused uploads"}},
            {{totals.agents, totals.zips, totals.records, totals.refused}}};
}

Table MakeAgents(Store& store, const ServletRequest& request) {
    std::vector<Agent> agents = Agents(store);
    const std::string key = Parameter(request, "agent");
    std::erase_if(agents, [&](const Agent& agent) { return !key.empty() && agent.details.key != key; });
    return AgentTable(agents, Now());
}

// --- Paths

/// Each of these is answered at the path itself.
struct View {
    std::string_view path;
    Answer (*serve)(Store&, const ServletRequest&);
};
constexpr View views[]{
    {"/", ServePage},
    {"/fragment", ServeFragment},
    {"/metrics", ServeMetrics},
    {"/plot", ServePlot},
    {"/plot/fragment", ServePlotFragment},
    {"/records", ServeRecords},
    {"/records.csv", ServeRecordsCsv},
    {"/records.json", ServeRecordsJson},
    {"/requests", ServeLivePage<requestsPage>},
    {"/requests/fragment", ServeLiveFragment<requestsPage>},
    {"/agents", ServeLivePage<agentsPage>},
    {"/agents/fragment", ServeLiveFragment<agentsPage>},
};

/// Each of these is answered at its path with ".csv" and ".json".
struct TableView {
    std::string_view path;
    Table (*make)(Store&, const ServletRequest&);
};
constexpr TableView tables[]{
    {"/agents", MakeAgents},   {"/faults", MakeFaults},     {"/notices", MakeNotices},  {"/plot", PlotTable},
    {"/plans", MakePlans},     {"/problems", MakeProblems}, {"/refused", MakeRefusals}, {"/requests", MakeRequests},
    {"/summary", MakeSummary}, {"/totals", MakeTotals},     {"/tracks", MakeTracks},    {"/values", MakeValues},
};

std::optional<TableFormat> FormatOf(std::string_view path, std::string_view tablePath) {
    if (!path.starts_with(tablePath)) return std::nullopt;
    const std::string_view rest = path.substr(tablePath.size());
    if (rest == ".csv") return TableFormat::csv;
    if (rest == ".json") return TableFormat::json;
    return std::nullopt;
}

std::optional<Answer> FindAndServe(Store& store, const ServletRequest& request) {
    for (const View& view : views)
        if (view.path == request.path) return view.serve(store, request);
    for (const TableView& table : tables)
        if (const auto format = FormatOf(request.path, table.path))
            return TableAnswer(table.make(store, request), *format);
    if (request.path.starts_with("/record/")) return ServeRecord(store, request);
    return std::nullopt;
}

std::string ErrorTitle(int status) {
    switch (status) {
        case 400:
            return "This address cannot be read";
        case 404:
            return "Not found";
        case 405:
            return "Not to be called like this";
        default:
            return "The lab has failed";
    }
}

}  // namespace

Answer ShownError(Answer answer, const ServletRequest& request) {
    if (answer.status < 400 || !request.html) return answer;
    Frame frame;
    frame.title = ErrorTitle(answer.status);
    Add(frame.controls, "<div class=bar><span>HTTP status {} for <code>{}</code></span></div>\n", answer.status,
        Escape(StartOfText(CleanUtf8(request.path), maxShownPath)));
    Add(frame.body,
        "<p class=card>{}</p>\n<p><a href=/>to the overview</a> · <a href=/records>to the records</a></p>\n",
        Escape(answer.body));
    answer.type = htmlType;
    answer.headers.emplace_back("Content-Security-Policy", PagePolicy());
    answer.body = Document(frame);
    return answer;
}

std::optional<Answer> ServeView(Store& store, const ServletRequest& request) {
    try {
        return FindAndServe(store, request);
    } catch (const BadRequest& error) {
        return TextAnswer(400, error.what());
    }
}

}  // namespace kv::lab
