#include "lab/page/agents.h"

#include <algorithm>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"

namespace kv::lab {

namespace {

constexpr std::size_t maxAgents = 500;  // on the page

bool IsInContact(const Agent& agent, std::int64_t now) {
    return agent.status.empty() && now - agent.lastContact < silentMilliseconds;
}

std::string RemainingText(const Fault& fault) {
    if (fault.remaining == 0) return "until it is cleared";
    return fault.remaining == 1 ? "the next request" : fmt::format("the next {} requests", fault.remaining);
}

}  // namespace

std::string ContactText(const Agent& agent, std::int64_t now) {
    if (!agent.status.empty()) return agent.status;
    if (IsInContact(agent, now)) return "in contact";
    const std::int64_t minutes = (now - agent.lastContact) / 60000;
    if (minutes < 120) return fmt::format("silent for {} minutes", minutes);
    return minutes < 2880 ? fmt::format("silent for {} hours", minutes / 60)
                          : fmt::format("silent for {} days", minutes / 1440);
}

void AddAgents(std::string& html, std::vector<Agent> agents, std::int64_t now) {
    AddSectionTitle(html, "Agents", "/agents", "");
    if (agents.empty()) {
        html += "<p class=soft>No agent has called yet.</p>\n";
        return;
    }
    std::stable_sort(agents.begin(), agents.end(),
                     [now](const Agent& a, const Agent& b) { return !IsInContact(a, now) && IsInContact(b, now); });
    const std::size_t left = agents.size() - std::min(agents.size(), maxAgents);
    agents.resize(agents.size() - left);
    html += "<div class=card>";
    AddHtmlTable(html, AgentTable(agents, now));
    html += "</div>\n";
    if (left > 0) Add(html, "<p class=soft>… {} more, all in <a href=/agents.csv>CSV</a></p>\n", left);
}

Table AgentTable(const std::vector<Agent>& agents, std::int64_t now) {
    Table table{"agents",
                {{"agent", "Agent"},
                 {"contact", "State"},
                 {"last_contact", "Last contact"},
                 {"name", "Name"},
                 {"dns", "DNS name"},
                 {"address", "Address"},
                 {"os", "Operating system"},
                 {"customer", "Customer"},
                 {"office", "Office"},
                 {"first_contact", "First contact"}},
                {}};
    for (const Agent& agent : agents) {
        const AgentDetails& details = agent.details;
        table.rows.push_back({Link{details.key, "/?agent=" + UrlText(details.key)},
                              Marked{ContactText(agent, now), IsInContact(agent, now) ? Mark::good : Mark::bad},
                              Moment{agent.lastContact}, details.id, details.dns, details.address, details.osName,
                              details.customer, details.office, Moment{agent.firstContact}});
    }
    return table;
}

void AddFaults(std::string& html, const std::vector<Fault>& faults) {
    if (faults.empty()) return;
    html += "<section class='card notice'><div class=title style='margin:0'><h2>Faults are set</h2>";
    AddTableLinks(html, "/faults", "");
    html += "</div>\n";
    for (const Fault& fault : faults)
        Add(html, "<div>{}: <b>{}</b> <span class=soft>{}; <code>kvlab fault clear --number {}</code></span></div>\n",
            Escape(fault.servlet == "*" ? "all requests" : fault.servlet), FaultText(fault), RemainingText(fault),
            fault.number);
    html += "</section>\n";
}

Table FaultTable(const std::vector<Fault>& faults) {
    Table table{
        "faults", {{"number", "Number"}, {"servlet", "Servlet"}, {"fault", "Fault"}, {"remaining", "Requests"}}, {}};
    for (const Fault& fault : faults)
        table.rows.push_back(
            {fault.number, fault.servlet, FaultText(fault), fault.remaining > 0 ? Cell(fault.remaining) : Cell()});
    return table;
}

}  // namespace kv::lab
