#include "lab/page/first_minute.h"

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

void AddConnecting(std::string& html) {
    html +=
        "<section class=card><h2>No agent has called yet</h2>\n<p>On the agent's machine, lead it to this server, "
        "and start it. HOST and PORT are those of this page's address:</p>\n"
        "<pre>kvagentctl setup --server http://HOST:PORT --customer Demo --office Demo\nkvagentctl check</pre>\n"
        "<p>It registers as soon as it starts, and uploads for the first time a minute later. This page shows "
        "it by itself.</p></section>\n";
}

void AddWait(std::string& html, const Agent& agent, std::int64_t now) {
    const std::int64_t left = agent.firstContact + firstUpload - now;
    if (left > 0) {
        Add(html, "Its first upload comes in <b data-left={0}>{0} s</b>.", (left + 999) / 1000);
    } else if (left > -passTime) {
        html += "<b>Its first upload is on its way.</b>";
    } else {
        Add(html,
            "<span class=bad>Its first upload has not come.</span> It was expected at {}; an agent that cannot "
            "upload, or has collected nothing, says so in its log.",
            UtcText(agent.firstContact + firstUpload));
    }
}

void AddPlan(std::string& html, const std::vector<PlannedRecord>& plan) {
    if (plan.empty()) {
        html +=
            "<p class=soft>What it collects is not known here: it has a plan of its own. <code>kvlab serve --plan "
            "FILE</code> shows it, and <code>kvlab conf push</code> gives it another.</p>\n";
        return;
    }
    Table table{"plan",
                {{"workflow", "Workflow"},
                 {"interval", "Minutes"},
                 {"name", "Record"},
                 {"device", "Device"},
                 {"source", "From"}},
                {}};
    for (const PlannedRecord& record : plan)
        table.rows.push_back({record.workflow, record.interval, record.name, record.device, record.source});
    html += "<h3>What it collects, by its plan</h3>\n";
    AddHtmlTable(html, table);
}

void AddAwaited(std::string& html, const AwaitedAgent& awaited, std::int64_t now) {
    const AgentDetails& details = awaited.agent.details;
    Add(html, "<section class=card><h2>{} has registered</h2>\n<p>{}{}{}, {}, at {}. ", Escape(details.key),
        Escape(details.id), details.id.empty() ? "" : ", ", Escape(details.osName), Escape(details.address),
        UtcText(awaited.agent.firstContact));
    AddWait(html, awaited.agent, now);
    html += "</p>\n";
    AddPlan(html, awaited.plan);
    html += "</section>\n";
}

}  // namespace

void AddFirstMinute(std::string& html, const std::vector<AwaitedAgent>& awaited, std::int64_t awaitedMore,
                    bool anyAgent, std::int64_t now) {
    if (!anyAgent) return AddConnecting(html);
    if (awaited.empty()) return;
    html += "<section id=awaited>";
    AddSectionTitle(html, "Waiting for the first upload", "", "");
    for (const AwaitedAgent& agent : awaited) AddAwaited(html, agent, now);
    if (awaitedMore > 0)
        Add(html, "<p class=soft>… {} more agents have sent no records yet: <a href=/agents>all agents</a></p>\n",
            awaitedMore);
    html += "</section>\n";
}

}  // namespace kv::lab
