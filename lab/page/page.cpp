#include "lab/page/page.h"

#include <fmt/format.h>

#include "foundation/version.h"
#include "lab/page/record_html.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::string_view style = R"(
:root { --line: #d9dee3; --soft: #5d6b78; --bad: #b3261e; --good: #1b6e3c; }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 76rem; padding: 1rem 1.5rem 3rem; background: #f5f7f9; color: #1d2730;
  font: 15px/1.45 system-ui, "Segoe UI", "DejaVu Sans", sans-serif; }
h1 { font-size: 1.35rem; margin: .4rem 0 0; }
h2 { font-size: 1.05rem; margin: 1.8rem 0 .5rem; }
.soft { color: var(--soft); }
.bad { color: var(--bad); font-weight: 600; }
.good { color: var(--good); font-weight: 600; }
.fields .bad { color: var(--bad); }
.card { background: #fff; border: 1px solid var(--line); border-radius: 6px; margin: 0 0 .7rem; overflow-x: auto; }
.record { padding: .55rem .8rem .7rem; }
.head { display: flex; flex-wrap: wrap; gap: .1rem 1rem; align-items: baseline; }
.head b { font-size: 1rem; }
.fields { display: flex; flex-wrap: wrap; gap: .1rem 1.2rem; margin: .2rem 0 0; font-size: .9rem; }
.fields span span { color: var(--soft); }
table { border-collapse: collapse; font-size: .9rem; }
.card > table { width: 100%; }
th { text-align: left; font-weight: 600; color: var(--soft); white-space: nowrap; }
td { overflow-wrap: anywhere; }
th, td { padding: .28rem .8rem .28rem 0; border-bottom: 1px solid var(--line); vertical-align: top; }
.card > table th:first-child, .card > table td:first-child { padding-left: .8rem; }
tr:last-child > th, tr:last-child > td { border-bottom: 0; }
h3 { font-size: .95rem; margin: .5rem 0 0; }
.record table { margin-top: .25rem; }
td table { margin: 0; }
pre { margin: .4rem 0 0; white-space: pre-wrap; overflow-wrap: anywhere; font: 13px/1.4 ui-monospace, monospace; }
)";

constexpr std::string_view script = R"(
const live = document.getElementById('live'), clock = document.getElementById('clock');
let shown = '';
async function refresh() {
  try {
    const answer = await fetch('/fragment');
    if (!answer.ok) throw new Error('HTTP ' + answer.status);
    const text = await answer.text();
    if (text !== shown) { live.innerHTML = text; shown = text; }
    clock.textContent = 'as of ' + new Date().toISOString().slice(0, 19).replace('T', ' ') + 'Z';
    clock.className = 'soft';
  } catch (error) {
    clock.textContent = 'the server does not answer (' + error.message + ')';
    clock.className = 'bad';
  }
  setTimeout(refresh, 3000);
}
refresh();
)";

/// A table in a card; nothing when there are no rows.
void AddTable(std::string& html, std::string_view title, const std::vector<std::string_view>& columns,
              const std::vector<std::vector<std::string>>& rows) {
    if (rows.empty()) return;
    Add(html, "<h2>{}</h2>\n<div class=card><table>\n<tr>", title);
    for (const std::string_view column : columns) Add(html, "<th>{}</th>", column);
    html += "</tr>\n";
    for (const auto& row : rows) {
        html += "<tr>";
        for (const std::string& cell : row) Add(html, "<td>{}</td>", cell);
        html += "</tr>\n";
    }
    html += "</table></div>\n";
}

void AddRecord(std::string& html, const Record& record) {
    const std::string& text = record.content.text;
    const bool whole = static_cast<std::int64_t>(text.size()) == record.bytes;
    const ParsedJson parsed = whole && record.content.isJson ? ParseJson(text) : ParsedJson();
    Add(html, "<div class='card record'><div class=head><b>{}</b><span>agent {}</span>",
        Escape(BaseName(record.content.file)), Escape(record.agent));
    Add(html, "<span class=soft>record {} in {}, accepted {}</span>", record.number, Escape(record.zip),
        UtcText(record.time));
    if (!record.content.isJson) html += "<span class=bad>not JSON</span>";
    html += "</div>\n";
    if (parsed.valid && json_object_is_type(parsed.value.get(), json_type_object)) {
        AddMembers(html, parsed.value.get());
    } else if (parsed.valid) {
        AddValue(html, parsed.value.get(), 0);
    } else {
        Add(html, "<pre>{}</pre>", Escape(StartOfText(text, static_cast<std::size_t>(previewCharacters))));
        if (record.bytes > previewCharacters)
            Add(html, "<a href='/api/records?after={}&amp;limit=1'>all {} bytes</a>", record.number - 1, record.bytes);
    }
    html += "</div>\n";
}

std::string StatusCell(const Agent& agent, std::int64_t now) {
    if (!agent.status.empty())
        return fmt::format("<span class=bad>{}</span> {}", Escape(agent.status), UtcText(agent.statusTime));
    const std::int64_t silence = now - agent.lastContact;
    if (silence < silentMilliseconds) return "<span class=good>in contact</span>";
    return fmt::format("<span class=bad>silent</span> for {} minutes", silence / 60000);
}

void AddAgents(std::string& html, const std::vector<Agent>& agents, std::int64_t now) {
    std::vector<std::vector<std::string>> rows;
    for (const Agent& agent : agents) {
        const AgentDetails& details = agent.details;
        rows.push_back({fmt::format("<b>{}</b>", Escape(details.key)), Escape(details.id), Escape(details.dns),
                        Escape(details.address), Escape(details.osName), Escape(details.customer),
                        Escape(details.office), UtcText(agent.lastContact), StatusCell(agent, now)});
    }
    AddTable(html, "Agents",
             {"Key", "Name", "DNS name", "Address", "Operating system", "Customer", "Office", "Last contact", "Status"},
             rows);
    if (agents.empty()) html += "<h2>Agents</h2><p class=soft>No agent has called yet.</p>\n";
}

void AddFaults(std::string& html, const std::vector<Fault>& faults) {
    std::vector<std::vector<std::string>> rows;
    for (const Fault& fault : faults)
        rows.push_back({std::to_string(fault.number), Escape(fault.servlet), FaultText(fault),
                        fault.remaining == 0 ? "until cleared" : fmt::format("the next {}", fault.remaining)});
    AddTable(html, "Faults", {"Number", "Servlet", "Fault", "Requests"}, rows);
}

void AddRefusals(std::string& html, const std::vector<Refusal>& refusals) {
    std::vector<std::vector<std::string>> rows;
    for (const Refusal& refusal : refusals)
        rows.push_back({UtcText(refusal.time), Escape(refusal.agent), Escape(refusal.zip),
                        fmt::format("<span class=bad>{}</span>", Escape(refusal.reason)), Escape(refusal.address),
                        std::to_string(refusal.times)});
    AddTable(html, "Refused uploads", {"Last time", "Agent", "Zip", "Reason", "From", "Times"}, rows);
}

std::string StateCell(const std::string& state) {
    std::string_view look = "soft";
    if (state == "answered" || state == "done") look = "good";
    if (state == "dropped" || state == "unanswered") look = "bad";
    return fmt::format("<span class={}>{}</span>", look, Escape(state));
}

void AddRequests(std::string& html, const std::vector<Request>& requests) {
    std::vector<std::vector<std::string>> rows;
    for (const Request& request : requests) {
        std::string members;
        const ParsedJson parsed = ParseJson(request.members);
        if (parsed.valid) AddValue(members, parsed.value.get(), 0);
        rows.push_back({UtcText(request.added), Escape(request.agent), Escape(request.id), Escape(request.type),
                        members, StateCell(request.state)});
    }
    AddTable(html, "Requests", {"Time", "Agent", "Request", "Type", "Members", "State"}, rows);
}

std::string ReportCell(const std::string& text) {
    std::string html;
    const bool isLarge = static_cast<std::int64_t>(text.size()) > maxPageTextBytes;
    const ParsedJson parsed = isLarge ? ParsedJson() : ParseJson(text);
    if (parsed.valid && json_object_is_type(parsed.value.get(), json_type_object)) {
        AddMembers(html, parsed.value.get());
    } else {
        AddText(html, text);
    }
    return html;
}

void AddReports(std::string& html, std::string_view title, const std::vector<Report>& reports) {
    std::vector<std::vector<std::string>> rows;
    for (const Report& report : reports) {
        rows.push_back({UtcText(report.time), Escape(report.agent), Escape(report.action), Escape(report.requestId),
                        ReportCell(report.text)});
    }
    AddTable(html, title, {"Time", "Agent", "Action", "Request", "Text"}, rows);
}

}  // namespace

Overview ReadOverview(Store& store) {
    return {Now(),
            CountAll(store),
            Agents(store),
            Faults(store),
            LatestRefusals(store, pageReports),
            LatestRequests(store, "", pageRequests),
            LatestActions(store, pageReports),
            LatestAnswers(store, pageReports),
            LatestRecords(store, pageRecords, maxPageTextBytes, previewCharacters)};
}

std::string Fragment(const Overview& overview) {
    const Totals& totals = overview.totals;
    std::string html;
    Add(html, "<p>Agents: {}. Records: {}. Zips: {}. Refused uploads: {}.</p>\n", totals.agents, totals.records,
        totals.zips, totals.refused);
    AddAgents(html, overview.agents, overview.time);
    AddFaults(html, overview.faults);
    AddRefusals(html, overview.refusals);
    AddRequests(html, overview.requests);
    AddReports(html, "Answers to requests", overview.answers);
    AddReports(html, "Notices", overview.actions);
    html += "<h2>Latest records</h2>\n";
    if (overview.records.empty()) html += "<p class=soft>No record has arrived yet.</p>\n";
    for (const Record& record : overview.records) AddRecord(html, record);
    return html;
}

std::string Page(const Overview& overview) {
    return fmt::format(
        "<!DOCTYPE html>\n<html lang=en>\n<head>\n<meta charset=utf-8>\n"
        "<meta name=viewport content='width=device-width'>\n<title>kvlab</title>\n"
        "<noscript><meta http-equiv=refresh content=5></noscript>\n<style>{}</style>\n</head>\n<body>\n"
        "<h1>Lab server</h1>\n<div id=clock class=soft>as of {}</div>\n"
        "<main id=live>\n{}</main>\n<footer class=soft>kvlab {}</footer>\n<script>{}</script>\n</body>\n</html>\n",
        style, UtcText(overview.time), Fragment(overview), programVersion, script);
}

}  // namespace kv::lab
