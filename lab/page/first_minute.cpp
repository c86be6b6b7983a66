#include "lab/page/first_minute.h"

#include <algorithm>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/page/table.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

/// An agent packs and uploads for the first time so long after its start.
constexpr std::int64_t firstUpload = 60'000;

/// A pass of uploads and what it waits for takes some seconds.
constexpr std::int64_t passTime = 15'000;

constexpr std::size_t agentsShown = 4;

void AddAgentLine(std::string& html, const Agent& agent) {
    const AgentDetails& details = agent.details;
    Add(html, "<b>{}</b> <span class=soft>{}{}{}, {}</span>, registered at {}. ", Escape(details.key),
        Escape(details.id), details.id.empty() ? "" : ", ", Escape(details.osName), Escape(details.address),
        UtcText(agent.firstContact));
}

void AddDue(std::string& html, const Agent& agent, std::int64_t now) {
    html += "<p>";
    AddAgentLine(html, agent);
    const std::int64_t left = agent.firstContact + firstUpload - now;
    if (left > 0)
        Add(html, "Its first upload comes in <b data-left={0}>{0} s</b>.</p>\n", (left + 999) / 1000);
    else
        html += "<b>Its first upload is on its way.</b></p>\n";
}

void AddMoreAgents(std::string& html, std::size_t count) {
    if (count > agentsShown)
        Add(html, "<p class=soft>… {} more: <a href=/agents>all agents</a></p>\n", count - agentsShown);
}

void AddPlan(std::string& html, std::string_view id, const std::string& title, const std::vector<PlannedRecord>& plan,
             bool unfolded) {
    Table table{"plan",
                {{"workflow", "Workflow"},
                 {"interval", "Minutes"},
                 {"name", "Record"},
                 {"device", "Device"},
                 {"source", "From"}},
                {}};
    for (const PlannedRecord& record : plan)
        table.rows.push_back({record.workflow, record.interval, record.name, record.device, record.source});
    Add(html, "<details id=\"plan-{}\"{}><summary>{}</summary>", Escape(id), unfolded ? " open" : "", Escape(title));
    AddHtmlTable(html, table);
    html += "</details>\n";
}

/// What agents collect: by a plan that was pushed to one of them, or by the one that they start with.
void AddPlans(std::string& html, Store& store, const std::vector<Agent>& agents, bool unfolded) {
    const std::string start = KnownPlan(store, "").value_or("");
    bool anyStart = false;
    bool anyUnknown = false;
    for (std::size_t at = 0; at < std::min(agents.size(), agentsShown); ++at) {
        const std::string& key = agents[at].details.key;
        const std::string plan = KnownPlan(store, key).value_or("");
        anyUnknown = anyUnknown || plan.empty();
        anyStart = anyStart || (!plan.empty() && plan == start);
        if (!plan.empty() && plan != start)
            AddPlan(html, key, "What " + key + " collects by the plan that was pushed to it", RecordsOfPlan(plan),
                    unfolded);
    }
    if (anyStart)
        AddPlan(html, "", "What an agent collects that starts with this server's plan", RecordsOfPlan(start), unfolded);
    if (anyUnknown)
        html +=
            "<p class=soft>What is collected is not known here: agents have plans of their own. <code>kvlab serve "
            "--plan FILE</code> shows one, and <code>kvlab conf push</code> gives them another.</p>\n";
}

}  // namespace

AwaitedAgents SplitAwaited(const std::vector<Agent>& agents, std::int64_t now) {
    AwaitedAgents split;
    for (const Agent& agent : agents)
        (now - agent.firstContact < firstUpload + passTime ? split.due : split.late).push_back(agent);
    return split;
}

void AddConnecting(std::string& html) {
    html +=
        "<section class=card><h2>No agent has called yet</h2>\n<p>On the agent's machine, lead it to this server, "
        "and start it:</p>\n"
        "<pre>kvagentctl setup --server http://<span data-host>HOST:PORT</span> --customer Demo --office "
        "Demo\nkvagentctl check</pre>\n"
        "<p>It registers as soon as it starts, and uploads for the first time a minute later. This page shows "
        "it by itself.</p></section>\n";
}

void AddDueAgents(std::string& html, Store& store, const std::vector<Agent>& due, bool unfolded, std::int64_t now) {
    if (due.empty()) return;
    html += "<section id=awaited>";
    AddSectionTitle(html, "Waiting for the first upload", "", "");
    html += "<div class=card>\n";
    for (std::size_t at = 0; at < std::min(due.size(), agentsShown); ++at) AddDue(html, due[at], now);
    AddMoreAgents(html, due.size());
    AddPlans(html, store, due, unfolded);
    html += "</div></section>\n";
}

void AddLateAgents(std::string& html, const std::vector<Agent>& late) {
    if (late.empty()) return;
    html += "<section id=late>";
    AddSectionTitle(html, "Registered, but nothing has come", "", "");
    html += "<div class=card>\n";
    for (std::size_t at = 0; at < std::min(late.size(), agentsShown); ++at) {
        html += "<p>";
        AddAgentLine(html, late[at]);
        Add(html, "<span class=bad>Its first upload has not come.</span> It was expected at {}.</p>\n",
            UtcText(late[at].firstContact + firstUpload));
    }
    AddMoreAgents(html, late.size());
    html += "<p class=soft>An agent that cannot upload, or has collected nothing, says so in its log.</p>\n";
    html += "</div></section>\n";
}

}  // namespace kv::lab
