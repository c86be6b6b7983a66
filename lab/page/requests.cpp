#include "lab/page/requests.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t maxAnswerBytes = std::size_t{64} << 10;
constexpr std::string_view planType = "DOWNLOAD_QUERYCONF";

struct StateWords {
    std::string_view state;
    Mark mark;
    std::string_view meaning;
    std::string_view planMeaning;
};
constexpr StateWords stateWords[]{
    {"waiting", Mark::plain, "not fetched yet", "not fetched yet"},
    {"listed", Mark::plain, "fetched, no word yet", "the agent knows of it, and has not said that it is through"},
    {"answered", Mark::good, "answered", "the agent went through it; whether it took the plan, its log says"},
    {"done", Mark::good, "of a kind that gets no answer, and the agent has passed it", "the agent has passed it"},
    {"dropped", Mark::bad, "the agent went down while serving it",
     "the agent went down while serving it; its plan is the old one"},
    {"unanswered", Mark::bad, "fetched three times, no answer",
     "fetched three times, and not a word; its plan is the old one, as far as one can tell"},
};

const StateWords& WordsOf(const std::string& state) {
    static constexpr StateWords unknown{"", Mark::plain, "", ""};
    const auto* const found = std::find_if(std::begin(stateWords), std::end(stateWords),
                                           [&](const StateWords& words) { return words.state == state; });
    return found == std::end(stateWords) ? unknown : *found;
}

std::string_view ClassOf(Mark mark) { return mark == Mark::plain ? "soft" : (mark == Mark::good ? "good" : "bad"); }

std::string MemberText(const Request& request, const char* name) {
    const ParsedJson members = ParseJson(request.members);
    json_object* value = nullptr;
    if (!json_object_object_get_ex(members.value.get(), name, &value) || value == nullptr) return "";
    return json_object_get_string(value);
}

void AddStates(std::string& html, const RequestsView& view) {
    html += "<div class=tiles>\n";
    for (const StateWords& words : stateWords) {
        std::int64_t count = 0;
        for (const auto& [state, number] : view.states) count += state == words.state ? number : 0;
        const bool isBad = words.mark == Mark::bad && count > 0;
        Add(html, "<div class=tile title=\"{}\"><b class='{}'>{}</b>{}</div>\n", words.meaning, isBad ? "bad" : "",
            count, words.state);
    }
    html += "</div>\n";
}

void AddPlans(std::string& html, const RequestsView& view) {
    Table table{"plans", {{"time", "Pushed"}, {"agent", "Agent"}, {"plan", "Plan of"}, {"state", "What is known"}}, {}};
    for (const AnsweredRequest& answered : view.requests) {
        const Request& request = answered.request;
        if (request.type != planType) continue;
        const StateWords& words = WordsOf(request.state);
        table.rows.push_back({Moment{request.added}, request.agent, MemberText(request, "AGENT_KEY"),
                              Marked{std::string(words.planMeaning), words.mark}});
    }
    if (table.rows.empty()) return;
    AddSectionTitle(html, "Plans pushed", "", "");
    html += "<div class=card>";
    AddHtmlTable(html, table);
    html += "</div>\n";
}

void AddMembersLine(std::string& html, const Request& request) {
    const ParsedJson members = ParseJson(request.members);
    if (!json_object_is_type(members.value.get(), json_type_object)) return;
    html += "<div class=fields>";
    json_object_object_foreach(members.value.get(), name, value) {
        Add(html, "<span><span>{}</span> ", Escape(name));
        AddValue(html, value, 1);
        html += "</span>\n";
    }
    html += "</div>\n";
}

void AddAnswer(std::string& html, const Request& request, const Report& answer, std::size_t at) {
    Add(html, "<details id=answer{}-{}{}><summary>answered at {}</summary><div class=scroll>", request.number, at,
        at == 0 ? " open" : "", UtcText(answer.time));
    const ParsedJson parsed = answer.text.size() <= maxAnswerBytes ? ParseJson(answer.text) : ParsedJson();
    if (json_object_is_type(parsed.value.get(), json_type_object)) {
        AddMembers(html, parsed.value.get());
    } else {
        Add(html, "<pre>{}</pre>", Escape(StartOfText(answer.text, maxAnswerBytes)));
    }
    html += "</div></details>\n";
}

void AddRequest(std::string& html, const AnsweredRequest& answered) {
    const Request& request = answered.request;
    const StateWords& words = WordsOf(request.state);
    Add(html, "<article class=card><b>{} · {}</b> <span class={}>{}</span> <span class=soft>request {}, {}",
        Escape(request.agent), Escape(request.type), ClassOf(words.mark), Escape(request.state), Escape(request.id),
        UtcText(request.added));
    if (request.listings > 0)
        Add(html, ", fetched {}{}", request.listings == 1 ? "at " : fmt::format("{} times, last at ", request.listings),
            ClockText(request.listed));
    if (request.ended > 0) Add(html, ", ended at {}", ClockText(request.ended));
    html += "</span>\n";
    AddMembersLine(html, request);
    for (std::size_t at = 0; at < answered.answers.size(); ++at) AddAnswer(html, request, answered.answers[at], at);
    html += "</article>\n";
}

}  // namespace

void AddRequests(std::string& html, const RequestsView& view) {
    AddStates(html, view);
    AddPlans(html, view);
    AddSectionTitle(html, "Requests and answers, newest first", "/requests", "");
    if (view.requests.empty())
        html +=
            "<p class=soft>No request has been queued. <code>kvlab request add</code> queues one, <code>kvlab conf "
            "push</code> gives an agent a plan.</p>\n";
    for (const AnsweredRequest& answered : view.requests) AddRequest(html, answered);
    if (view.notices.empty()) return;
    AddSectionTitle(html, "What agents said about requests", "/notices", "");
    html += "<div class=card>";
    AddHtmlTable(html, NoticeTable(view.notices));
    html += "</div>\n";
}

void AddRequestCounts(std::string& html, const std::vector<std::pair<std::string, std::int64_t>>& states) {
    if (states.empty()) return;
    html += "<section>";
    AddSectionTitle(html, "Requests to agents", "/requests", "");
    html += "<div class=card><a href=/requests>";
    bool isFirst = true;
    for (const auto& [state, count] : states) {
        Add(html, "{}<span class={}>{} {}</span>", isFirst ? "" : ", ", ClassOf(WordsOf(state).mark), count,
            Escape(state));
        isFirst = false;
    }
    html += "</a></div></section>\n";
}

Table RequestTable(const std::vector<AnsweredRequest>& requests) {
    Table table{"requests",
                {{"number", "Number"},
                 {"agent", "Agent"},
                 {"id", "Request"},
                 {"type", "Type"},
                 {"members", "Members"},
                 {"state", "State"},
                 {"added", "Added"},
                 {"fetched", "Fetched"},
                 {"times_fetched", "Times fetched"},
                 {"ended", "Ended"},
                 {"answers", "Answers"},
                 {"latest_answer", "Latest answer"}},
                {}};
    const auto moment = [](std::int64_t time) { return time > 0 ? Cell(Moment{time}) : Cell(); };
    for (const auto& [request, answers] : requests)
        table.rows.push_back({request.number, request.agent, request.id, request.type, request.members, request.state,
                              Moment{request.added}, moment(request.listed), request.listings, moment(request.ended),
                              static_cast<std::int64_t>(answers.size()),
                              answers.empty() ? Cell() : Cell(answers.front().text)});
    return table;
}

Table NoticeTable(const std::vector<Report>& notices) {
    Table table{"notices",
                {{"time", "Time"}, {"agent", "Agent"}, {"action", "Action"}, {"request", "Request"}, {"text", "Text"}},
                {}};
    for (const Report& notice : notices)
        table.rows.push_back({Moment{notice.time}, notice.agent, notice.action, notice.requestId, notice.text});
    return table;
}

}  // namespace kv::lab
