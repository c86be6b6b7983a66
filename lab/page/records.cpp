#include "lab/page/records.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

#include "lab/page/frame.h"
#include "lab/page/record_html.h"
#include "lab/store/record_text.h"

namespace kv::lab {

namespace {

constexpr std::size_t shownReasonBytes = 160;

Cell ResultCell(const HistoryRecord& record) {
    if (!record.failed) return Marked{"good", Mark::good};
    return Marked{record.reason.empty() ? "failed" : record.reason, Mark::bad};
}

/// A sender, with a way to the records of it alone; nothing for an empty text.
Cell SenderLink(const std::string& text, Scope scope, const std::string& agent,
                const std::optional<std::string>& device) {
    if (text.empty()) return {};
    scope.filter.agent = agent;
    if (device) scope.filter.device = device;
    return Link{text, "/records" + ScopeQuery(scope)};
}

/// The columns that people look for: time, sender, record, result, size.
Table ShownTable(const std::vector<HistoryRecord>& records, const Scope& scope) {
    Table table{"records",
                {{"collected", "Collected"},
                 {"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"result", "Result"},
                 {"bytes", "Bytes"}},
                {}};
    for (const HistoryRecord& record : records) {
        Cell result = ResultCell(record);
        std::string& text = std::get<Marked>(result).text;
        if (text.size() > shownReasonBytes) text = std::string(StartOfText(text, shownReasonBytes)) + "…";
        const Source& source = record.source;
        table.rows.push_back({Moment{record.collected}, SenderLink(source.agent, scope, source.agent, std::nullopt),
                              SenderLink(source.device, scope, source.agent, source.device),
                              Link{NameText(source.name), fmt::format("/record/{}", record.number)}, std::move(result),
                              record.bytes});
    }
    return table;
}

void AddNeighbour(std::string& html, std::int64_t number, std::string_view title) {
    if (number > 0)
        Add(html, "<a href=/record/{}>{}</a>\n", number, title);
    else
        Add(html, "<span class=soft>{}</span>\n", title);
}

void AddFacts(std::string& html, const HistoryRecord& record) {
    html += "<div class=fields>";
    const std::pair<std::string_view, std::string> facts[]{{"agent", record.source.agent},
                                                           {"device", record.source.device},
                                                           {"collected", UtcText(record.collected)},
                                                           {"accepted", UtcText(record.accepted)},
                                                           {"zip", record.zip},
                                                           {"file", BaseName(record.file)},
                                                           {"bytes", std::to_string(record.bytes)}};
    for (const auto& [name, value] : facts)
        if (!value.empty()) Add(html, "<span><span>{}</span> {}</span>\n", name, Escape(value));
    html += "</div>\n";
}

/// The query for plots that begin before a record, with the shortest range that does; empty when no range does.
std::string PlotQuery(const HistoryRecord& record, std::int64_t now) {
    for (const RangeChoice& choice : rangeChoices)
        if (now - record.collected < choice.milliseconds) return SourceQuery({{}, &choice, {}}, record.source);
    return "";
}

void AddContent(std::string& html, const RecordText& content, const std::string& plotQuery) {
    const bool isSmall = content.text.size() <= maxShownBytes;
    const ParsedJson parsed = isSmall && content.isJson ? ParseJson(content.text) : ParsedJson();
    if (parsed.valid) {
        html += "<div class='card scroll' tabindex=0 role=region aria-label=Values>";
        if (json_object_is_type(parsed.value.get(), json_type_object))
            AddMembers(html, parsed.value.get(), {"", plotQuery});
        else
            AddValue(html, parsed.value.get(), 0);
        html += "</div>\n";
    }
    if (content.text.empty()) return;
    const std::string_view start = StartOfText(content.text, maxShownBytes);
    Add(html, "<details id=text{}><summary>Its text</summary><pre tabindex=0 role=region aria-label=Text>{}</pre>",
        parsed.valid ? "" : " open", Escape(start));
    if (start.size() < content.text.size())
        Add(html, "<p class=soft>… {} more bytes, all in JSON</p>", content.text.size() - start.size());
    html += "</details>\n";
}

}  // namespace

Table RecordTable(const std::vector<HistoryRecord>& records) {
    Table table{"records",
                {{"number", "Number"},
                 {"agent", "Agent"},
                 {"device", "Device"},
                 {"name", "Record"},
                 {"collected", "Collected"},
                 {"accepted", "Accepted"},
                 {"failed", "Failed"},
                 {"reason", "Reason"},
                 {"zip", "Zip"},
                 {"file", "File"},
                 {"bytes", "Bytes"}},
                {}};
    for (const HistoryRecord& record : records)
        table.rows.push_back({record.number, record.source.agent, record.source.device, record.source.name,
                              Moment{record.collected}, Moment{record.accepted}, record.failed, record.reason,
                              record.zip, record.file, record.bytes});
    return table;
}

std::string RecordJson(const HistoryRecord& record, const RecordText& content) {
    std::string item = RowJson(RecordTable({record}), 0);
    item.pop_back();
    // What is JSON goes as it came. Older versions took more for JSON than the format has.
    const bool isJson = content.isJson && IsJson(content.text);
    return fmt::format(R"({},"json":{},"values":{}}})", item, isJson,
                       isJson ? content.text : PlainJson(Json(JsonText(content.text)).get()));
}

std::string RecordsDocument(Store& store, const std::vector<HistoryRecord>& records) {
    std::string text = "{\"records\":[";
    std::size_t bytes = 0;
    for (const HistoryRecord& record : records) {
        if (bytes >= maxDocumentBytes) break;
        const std::optional<RecordText> content = ReadContent(store, record.number);
        if (!content) continue;  // pruned meanwhile
        text += (bytes > 0 ? "," : "") + RecordJson(record, *content);
        bytes += std::max<std::size_t>(content->text.size(), 1);
    }
    return text + "]}";
}

void AddRecords(std::string& html, const std::vector<HistoryRecord>& records, const Scope& scope, std::size_t full) {
    const std::string query = ScopeQuery(scope);
    AddSectionTitle(html, "Records, newest first", "/records", query);
    if (records.empty()) {
        html += "<p class=soft>No record in this time fits. Try a longer one, or take the filter away.</p>\n";
        return;
    }
    html += "<div class=card>";
    AddHtmlTable(html, ShownTable(records, scope));
    html += "</div>\n";
    if (records.size() >= full)
        Add(html, "<p><a href=\"/records{}{}before={}\">older</a></p>\n", Escape(query), query.empty() ? "?" : "&amp;",
            PlaceText(records.back()));
}

std::string PlaceText(const HistoryRecord& last) { return fmt::format("{}-{}", last.collected, last.number); }

HistoryPlace PlaceOf(const ServletRequest& request) {
    HistoryPlace place;
    const std::string text = Parameter(request, "before");
    if (text.empty()) return place;
    const char* const end = text.data() + text.size();
    const auto time = std::from_chars(text.data(), end, place.collected);
    const bool hasNumber = time.ec == std::errc() && time.ptr != end && *time.ptr == '-';
    const auto number = hasNumber ? std::from_chars(time.ptr + 1, end, place.number) : time;
    if (!hasNumber || number.ec != std::errc() || number.ptr != end)
        throw BadRequest("the parameter before is not a place in the list of records");
    return place;
}

void AddWholeRecord(std::string& html, const WholeRecord& whole, std::int64_t now) {
    const HistoryRecord& record = whole.record;
    Add(html, "<div class=title><h2 class={}>", record.failed ? "bad" : "good");
    if (record.failed)
        AddText(html, record.reason.empty() ? "failed" : record.reason);
    else
        html += "good";
    html += "</h2><span class=tabs>";
    AddNeighbour(html, whole.older, "← older");
    AddNeighbour(html, whole.newer, "newer →");
    Add(html, "<a href=\"/records{}\">all of its kind</a> <a href=/record/{}.json>JSON</a></span></div>\n",
        Escape(SourceQuery({}, record.source)), record.number);
    html += "<div class=card>";
    AddFacts(html, record);
    html += "</div>\n";
    AddContent(html, whole.content, PlotQuery(record, now));
}

}  // namespace kv::lab
