#include "lab/page/problems.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <utility>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"

namespace kv::lab {

namespace {

constexpr std::size_t openProblems = 8;    // the others are shown on demand
constexpr std::size_t shownProblems = 60;  // on the page
constexpr std::size_t apartProblems = 3;   // of one name and reason, before they become one
constexpr std::size_t namedSenders = 4;
constexpr std::size_t maxRefusals = 8;  // on the page

std::string TimesText(std::int64_t times) { return times == 1 ? "once" : fmt::format("{} times", times); }

/// What fails with the same name for the same reason.
struct ProblemGroup {
    std::vector<const Problem*> problems;  // the first is the latest of those that still fail, if some do
    std::int64_t times = 0;
    std::int64_t failing = 0;    // that still fail
    std::int64_t goodSince = 0;  // when the last of the others was good again
};

void AddToGroup(ProblemGroup& group, const Problem& problem) {
    group.problems.push_back(&problem);
    group.times += problem.times;
    group.failing += problem.goodSince == 0 ? 1 : 0;
    group.goodSince = std::max(group.goodSince, problem.goodSince);
}

/// In the order of the problems. Few of one name and reason stay apart.
std::vector<ProblemGroup> GroupProblems(const std::vector<Problem>& problems) {
    std::map<std::pair<std::string, std::string>, std::vector<const Problem*>> alike;
    for (const Problem& problem : problems) alike[{problem.source.name, problem.reason}].push_back(&problem);
    std::vector<ProblemGroup> groups;
    for (const Problem& problem : problems) {
        const std::vector<const Problem*>& all = alike[{problem.source.name, problem.reason}];
        if (all.size() > apartProblems && all.front() != &problem) continue;
        ProblemGroup& group = groups.emplace_back();
        if (all.size() <= apartProblems) {
            AddToGroup(group, problem);
        } else {
            for (const Problem* one : all) AddToGroup(group, *one);
        }
    }
    return groups;
}

/// The name, and who sends it.
void AddGroupTitle(std::string& html, const ProblemGroup& group, const Scope& scope) {
    Scope failed = scope;
    failed.filter.failedOnly = true;
    const Source& first = group.problems.front()->source;
    const std::size_t senders = group.problems.size();
    if (senders == 1) {
        Add(html, "<a href=\"/records{}\"><b>{}</b></a> <span class=soft>", Escape(SourceQuery(failed, first)),
            Escape(SourceTitle(first)));
        return;
    }
    failed.filter.name = first.name;
    Add(html, "<a href=\"/records{}\"><b>{}</b></a> <span class=soft>of ", Escape(ScopeQuery(failed)),
        Escape(NameText(first.name)));
    for (std::size_t at = 0; at < namedSenders; ++at)
        Add(html, "{}{}", at > 0 ? ", " : "", Escape(Sender(group.problems[at]->source)));
    if (senders > namedSenders) Add(html, " and {} more", senders - namedSenders);
    html += "; ";
}

void AddGroup(std::string& html, const ProblemGroup& group, const Scope& scope) {
    const Problem& first = *group.problems.front();
    Add(html, "<div class='card problem{}'>", group.failing == 0 ? " past" : "");
    AddGroupTitle(html, group, scope);
    Add(html, "{}, last <a href=\"/record/{}\">{}</a></span>", TimesText(group.times), first.lastRecord,
        ClockText(first.last));
    if (group.failing == 0) {
        Add(html, "<span class=good>, good again since {}</span>", MinuteText(group.goodSince, scope.range.to));
    } else if (group.goodSince > 0) {
        Add(html, "<span class=good>, {} of {} good again</span>",
            group.problems.size() - static_cast<std::size_t>(group.failing), group.problems.size());
    }
    html += "<br>";
    AddText(html, first.reason);
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
        Add(html, "<p class=good>Nothing has failed in the last {}.</p>\n", scope.choice->title);
    }
}

}  // namespace

void AddProblems(std::string& html, const Problems& found, const std::vector<Refusal>& refusals, const Summary& summary,
                 const Scope& scope) {
    html += "<section id=problems>";
    AddSectionTitle(html, "What fails, and why", "/problems", ScopeQuery(scope));
    const std::vector<ProblemGroup> groups = GroupProblems(found.problems);
    const std::size_t shown = std::min(groups.size(), shownProblems);
    for (std::size_t at = 0; at < std::min(refusals.size(), maxRefusals); ++at) AddRefusal(html, refusals[at], scope);
    for (std::size_t at = 0; at < shown; ++at) {
        if (at == openProblems) Add(html, "<details id=more-problems><summary>{} more</summary>\n", shown - at);
        AddGroup(html, groups[at], scope);
    }
    if (shown > openProblems) html += "</details>\n";
    if (found.older)
        Add(html, "<p class=soft>Only the newest {} failures were looked at and counted.</p>\n", maxProblemRecords);
    AddMore(html, found.more + static_cast<std::int64_t>(groups.size() - shown));
    if (!refusals.empty()) {
        html += "<p class=soft>Refused uploads of any time: ";
        AddTableLinks(html, "/refused", "");
        html += "</p>\n";
    }
    if (groups.empty() && refusals.empty()) AddNothingFailed(html, summary, scope);
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
