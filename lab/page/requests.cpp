#include "lab/page/requests.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/page/scope.h"
#include "lab/store/record_facts.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t maxAnswerBytes = std::size_t{64} << 10;
constexpr std::string_view planType = "DOWNLOAD_QUERYCONF";

struct StateWords {
    std::string_view state;
    Mark mark;
    std::string_view meaning;
};
constexpr StateWords stateWords[]{
    {"waiting", Mark::plain, "not fetched yet"},
    {"listed", Mark::plain, "fetched, no word yet"},
    {"answered", Mark::good, "answered"},
    {"done", Mark::good, "of a kind that gets no answer, and the agent has passed it"},
    {"dropped", Mark::bad, "the agent went down while serving it"},
    {"unanswered", Mark::bad, "fetched three times, no answer"},
};

const StateWords& WordsOf(const std::string& state) {
    static constexpr StateWords unknown{"", Mark::plain, ""};
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

/// Why an answer tells of a failure; empty when it does not.
std::string AnswerFailure(const Report& answer) {
    const ParsedJson parsed = answer.text.size() <= maxAnswerBytes ? ParseJson(answer.text) : ParsedJson();
    json_object* const document = parsed.value.get();
    if (!json_object_is_type(document, json_type_object)) return "";
    // Of a device that was looked for.
    json_object* identity = nullptr;
    const bool isIdentity =
        json_object_object_get_ex(document, "SYSOID", &identity) && json_object_is_type(identity, json_type_string);
    const std::string_view text = isIdentity ? json_object_get_string(identity) : "";
    if (text == "NO RESPONSE") return "the device did not answer";
    if (text == "INVALID IPADDRESS") return "the device's name cannot be resolved";
    return FailureOf(document);
}

/// What became of a request: its state, and whether the answer is good news.
Marked OutcomeOf(const AnsweredRequest& answered) {
    const Request& request = answered.request;
    const StateWords& words = WordsOf(request.state);
    if (request.state != "answered") return {request.state, words.mark};
    // Agents say "success" of plans in any case.
    if (request.type == planType)
        return answered.planFetched == 0 ? Marked{"answered: not taken", Mark::bad} : Marked{"answered", Mark::plain};
    const bool failed = !answered.answers.empty() && !AnswerFailure(answered.answers.front()).empty();
    return failed ? Marked{"answered: failed", Mark::bad} : Marked{"answered", Mark::good};
}

/// Nothing for 0 and for what is not known.
Cell MomentOrNothing(std::optional<std::int64_t> time) { return time.value_or(0) > 0 ? Cell(Moment{*time}) : Cell(); }

std::string AgentQuery(const RequestsView& view) { return view.agent.empty() ? "" : "?agent=" + UrlText(view.agent); }

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

/// What became of a pushed plan. Agents report "success" in any case, so only the download tells whether they could
/// take it.
Marked PlanWords(const AnsweredRequest& answered) {
    const Request& request = answered.request;
    const bool isOver = request.ended > 0;
    if (!answered.planFetched)
        return {"of another server; " + std::string(WordsOf(request.state).meaning), Mark::plain};
    if (*answered.planFetched > 0)
        return isOver ? Marked{"the agent has it; if it was refused, its log says why", Mark::plain}
                      : Marked{"downloaded, no word yet", Mark::plain};
    if (request.state == "waiting") return {"the agent does not know of it yet", Mark::plain};
    if (!isOver) return {"the agent knows of it and has not downloaded it yet", Mark::plain};
    return {"not taken: the agent did not download it and keeps its old plan", Mark::bad};
}

void AddPlans(std::string& html, const RequestsView& view) {
    const Table table = PlanTable(view.plans);
    if (table.rows.empty()) return;
    AddSectionTitle(html, "Plans pushed", "/plans", AgentQuery(view));
    html += "<div class=card>";
    AddHtmlTable(html, table);
    html += "</div>\n";
}

/// The members of a request as they are shown: who sees the page may not know the devices' secrets.
ParsedJson ShownMembers(const Request& request) {
    ParsedJson members = ParseJson(request.members);
    if (!json_object_is_type(members.value.get(), json_type_object)) return members;
    json_object_object_foreach(members.value.get(), name, value) {
        static_cast<void>(value);
        const std::string_view word(name);
        const bool isSecret =
            word.find("COMMUNITY") != std::string_view::npos || word.find("PASS") != std::string_view::npos;
        if (isSecret) json_object_object_add(members.value.get(), name, json_object_new_string("(hidden)"));
    }
    return members;
}

void AddMembersLine(std::string& html, const Request& request) {
    const ParsedJson members = ShownMembers(request);
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
    Add(html,
        "<details id=answer{}-{}{}><summary>answered at {}{}</summary><div class=scroll tabindex=0 role=region "
        "aria-label=\"Answer to {}\">",
        request.number, at, at == 0 ? " open" : "", UtcText(answer.time),
        AnswerFailure(answer).empty() ? "" : ": <span class=bad>failed</span>", Escape(request.id));
    const ParsedJson parsed = answer.text.size() <= maxAnswerBytes ? ParseJson(answer.text) : ParsedJson();
    if (json_object_is_type(parsed.value.get(), json_type_object)) {
        AddMembers(html, parsed.value.get(), {request.id, ""});
    } else {
        Add(html, "<pre>{}</pre>", Escape(StartOfText(answer.text, maxAnswerBytes)));
    }
    html += "</div></details>\n";
}

void AddRequest(std::string& html, const AnsweredRequest& answered) {
    const Request& request = answered.request;
    const Marked outcome = OutcomeOf(answered);
    Add(html, "<article class=card><b>{} · {}</b> <span class={}>{}</span> <span class=soft>· request {}, {}",
        Escape(request.agent), Escape(request.type), ClassOf(outcome.mark), Escape(outcome.text), Escape(request.id),
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

/// The notices for people. That of a plan names the last request of the list that the agent has passed, which is
/// mostly another one.
Table ShownNotices(const std::vector<Report>& notices) {
    Table table = NoticeTable(notices);
    for (std::size_t at = 0; at < notices.size(); ++at)
        if (notices[at].action == planType && !notices[at].requestId.empty())
            table.rows[at][3] = "passed up to request " + notices[at].requestId;
    return table;
}

}  // namespace

void AddRequests(std::string& html, const RequestsView& view) {
    if (!view.agent.empty())
        Add(html, "<p>Those of <b>{}</b>. <a href=/requests>All requests</a></p>\n", Escape(view.agent));
    AddStates(html, view);
    AddPlans(html, view);
    AddSectionTitle(html, "Requests and answers, newest first", "/requests", AgentQuery(view));
    if (view.requests.empty())
        html +=
            "<p class=soft>No request has been queued. <code>kvlab request add</code> queues one, <code>kvlab conf "
            "push</code> gives an agent a plan.</p>\n";
    for (const AnsweredRequest& answered : view.requests) AddRequest(html, answered);
    if (view.notices.empty()) return;
    AddSectionTitle(html, "What agents said about requests", "/notices", "");
    html += "<div class=card>";
    AddHtmlTable(html, ShownNotices(view.notices));
    html += "</div>\n";
}

void AddRequestCounts(std::string& html, const std::vector<std::pair<std::string, std::int64_t>>& states) {
    if (states.empty()) return;
    html += "<section>";
    AddSectionTitle(html, "Requests to agents", "/requests", "");
    html += "<div class=card><a href=/requests>";
    bool isFirst = true;
    for (const auto& [state, count] : states) {
        Add(html, "{}<span{}>{} {}</span>", isFirst ? "" : ", ", WordsOf(state).mark == Mark::bad ? " class=bad" : "",
            count, Escape(state));
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
                 {"latest_answer", "Latest answer"},
                 {"failure", "Failure"}},
                {}};
    for (const auto& [request, answers, planFetched] : requests)
        table.rows.push_back({request.number, request.agent, request.id, request.type,
                              PlainJson(ShownMembers(request).value.get()), request.state, Moment{request.added},
                              MomentOrNothing(request.listed), request.listings, MomentOrNothing(request.ended),
                              static_cast<std::int64_t>(answers.size()),
                              answers.empty() ? Cell() : Cell(answers.front().text),
                              answers.empty() ? Cell() : Cell(AnswerFailure(answers.front()))});
    return table;
}

Table PlanTable(const std::vector<AnsweredRequest>& requests) {
    Table table{"plans",
                {{"time", "Pushed"},
                 {"agent", "Agent"},
                 {"plan", "Plan of"},
                 {"fetched", "Downloaded"},
                 {"state", "What is known"}},
                {}};
    for (const AnsweredRequest& answered : requests)
        table.rows.push_back({Moment{answered.request.added}, answered.request.agent,
                              MemberText(answered.request, "AGENT_KEY"), MomentOrNothing(answered.planFetched),
                              PlanWords(answered)});
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
