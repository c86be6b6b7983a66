#include "lab/page/problems.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"

namespace kv::lab {

namespace {

constexpr std::size_t openProblems = 8;  // the others are shown on demand
constexpr std::size_t maxRefusals = 8;   // on the page

std::string TimesText(std::int64_t times) { return times == 1 ? "once" : fmt::format("{} times", times); }

void AddProblem(std::string& html, const Problem& problem, const Scope& scope) {
    Scope failed = scope;
    failed.filter.failedOnly = true;
    Add(html, "<div class='card problem{}'><a href=\"/records{}\"><b>{}</b></a> <span class=soft>{}, ",
        problem.goodSince > 0 ? " past" : "", Escape(SourceQuery(failed, problem.source)),
        Escape(SourceTitle(problem.source)), TimesText(problem.times));
    Add(html, "last <a href=\"/record/{}\">{}</a></span>", problem.lastRecord, ClockText(problem.last));
    if (problem.goodSince > 0)
        Add(html, "<span class=good>, good again since {}</span>", MinuteText(problem.goodSince, scope.range.to));
    html += "<br>";
    AddText(html, problem.reason);
    html += "</div>\n";
}

void AddRefusal(std::string& html, const Refusal& refusal, const Scope& scope) {
    Add(html,
        "<div class='card problem'><b>{} · upload refused</b> <span class=soft>{}, last {}, from {}</span><br>{}: ",
        Escape(refusal.agent.empty() ? "an agent without a key" : refusal.agent), TimesText(refusal.times),
        MinuteText(refusal.time, scope.range.to), Escape(refusal.address), Escape(refusal.zip));
    AddText(html, refusal.reason);
    html += "</div>\n";
}

void AddNothingFailed(std::string& html, const Summary& summary, const Scope& scope) {
    if (summary.records == 0) {
        html += "<p class=soft>No record has come in this time.</p>\n";
    } else {
        Add(html, "<p class=good>Nothing has failed since {}.</p>\n", MinuteText(scope.range.from, scope.range.to));
    }
}

}  // namespace

void AddProblems(std::string& html, const Problems& found, const std::vector<Refusal>& refusals, const Summary& summary,
                 const Scope& scope) {
    html += "<section id=problems>";
    AddSectionTitle(html, "What fails, and why", "/problems", ScopeQuery(scope));
    const std::vector<Problem>& problems = found.problems;
    for (std::size_t at = 0; at < std::min(refusals.size(), maxRefusals); ++at) AddRefusal(html, refusals[at], scope);
    for (std::size_t at = 0; at < problems.size(); ++at) {
        if (at == openProblems)
            Add(html, "<details id=more-problems><summary>{} more</summary>\n", problems.size() - at);
        AddProblem(html, problems[at], scope);
    }
    if (problems.size() > openProblems) html += "</details>\n";
    AddMore(html, found.more);
    if (problems.empty() && refusals.empty()) AddNothingFailed(html, summary, scope);
    html += "</section>\n";
}

Table ProblemTable(const std::vector<Problem>& problems) {
    Table table{"problems",
                {{"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"reason", "Reason"},
                 {"times", "Times"},
                 {"last", "Last"},
                 {"last_record", "Last record"},
                 {"good_since", "Good since"}},
                {}};
    for (const Problem& problem : problems) {
        const Source& source = problem.source;
        table.rows.push_back({source.agent, source.device, source.name, problem.reason, problem.times,
                              Moment{problem.last}, problem.lastRecord,
                              problem.goodSince > 0 ? Cell(Moment{problem.goodSince}) : Cell()});
    }
    return table;
}

Table RefusalTable(const std::vector<Refusal>& refusals) {
    Table table{"refused",
                {{"agent", "Agent"},
                 {"zip", "Zip"},
                 {"reason", "Reason"},
                 {"times", "Times"},
                 {"last", "Last"},
                 {"from", "From"}},
                {}};
    for (const Refusal& refusal : refusals)
        table.rows.push_back(
            {refusal.agent, refusal.zip, refusal.reason, refusal.times, Moment{refusal.time}, refusal.address});
    return table;
}

}  // namespace kv::lab
