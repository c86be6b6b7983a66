#include "lab/page/table.h"

#include <cmath>
#include <fmt/format.h>

#include "lab/page/record_html.h"
#include "lab/page/scope.h"
#include "lab/store/store.h"

namespace kv::lab {

namespace {

/// A longer text may be broken anywhere, so that it takes no more than its share of a table's width.
constexpr std::size_t longBytes = 30;

/// Calls of one name for each type of cell.
template <class... Writers>
struct CellVisitor : Writers... {
    using Writers::operator()...;
};
template <class... Writers>
CellVisitor(Writers...) -> CellVisitor<Writers...>;

std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char character : text) quoted += character == '"' ? std::string("\"\"") : std::string(1, character);
    return quoted + '"';
}

void AddCsvRow(std::string& csv, const std::vector<std::string>& fields) {
    for (std::size_t at = 0; at < fields.size(); ++at) {
        if (at > 0) csv += ',';
        csv += CsvField(fields[at]);
    }
    csv += "\r\n";
}

/// Owned by the caller.
json_object* JsonCell(const Cell& cell) {
    return std::visit(CellVisitor{[](std::monostate) -> json_object* { return nullptr; },
                                  [](const std::string& text) { return JsonText(text); },
                                  [](std::int64_t number) { return json_object_new_int64(number); },
                                  [](double number) {
                                      return std::isfinite(number)
                                                 ? json_object_new_double_s(number, fmt::format("{}", number).c_str())
                                                 : nullptr;
                                  },
                                  [](bool value) { return json_object_new_boolean(value); },
                                  [](Moment moment) { return JsonText(UtcText(moment.time)); },
                                  [](const Link& link) { return JsonText(link.text); },
                                  [](const Marked& marked) { return JsonText(marked.text); }},
                      cell);
}

bool IsNumber(const Cell& cell) {
    return std::holds_alternative<std::int64_t>(cell) || std::holds_alternative<double>(cell);
}

/// The classes of style.h for a cell.
std::string LookOf(const Cell& cell, const std::string& text) {
    if (IsNumber(cell)) return "num";
    std::string look = text.size() > longBytes ? "long" : "";
    // What stands is short, and is read down the column.
    const bool stays = std::holds_alternative<Marked>(cell);
    if (look.empty() && !stays && text.find(' ') != std::string::npos) look = "words";
    const Marked* const marked = std::get_if<Marked>(&cell);
    if (marked && marked->mark != Mark::plain) look += marked->mark == Mark::good ? " good" : " bad";
    return look;
}

void AddHtmlCell(std::string& html, const Column& column, const Cell& cell, std::int64_t now) {
    const std::string text = CellText(cell);
    Add(html, "<td data-title=\"{}\" class='{}'>", Escape(column.title), LookOf(cell, text));
    if (const Link* link = std::get_if<Link>(&cell)) {
        Add(html, "<a href=\"{}\">{}</a>", Escape(link->path), Escape(link->text));
    } else if (const Moment* moment = std::get_if<Moment>(&cell)) {
        const bool isToday = moment->time / dayMilliseconds == now / dayMilliseconds;
        Add(html, "<span title='{}'>{}</span>", text, isToday ? ClockText(moment->time) : text);
    } else {
        AddText(html, text);
    }
    html += "</td>";
}

}  // namespace

std::string CellText(const Cell& cell) {
    return std::visit(
        CellVisitor{[](std::monostate) { return std::string(); }, [](const std::string& text) { return text; },
                    [](std::int64_t number) { return std::to_string(number); },
                    [](double number) { return std::isfinite(number) ? fmt::format("{}", number) : std::string(); },
                    [](bool value) { return std::string(value ? "yes" : "no"); },
                    [](Moment moment) { return UtcText(moment.time); }, [](const Link& link) { return link.text; },
                    [](const Marked& marked) { return marked.text; }},
        cell);
}

void AddHtmlTable(std::string& html, const Table& table) {
    if (table.rows.empty()) return;
    const std::int64_t now = Now();
    Add(html, "<div class=scroll tabindex=0 role=region aria-label=\"{}\"><table class=grid>\n<tr>",
        Escape(table.name));
    for (std::size_t at = 0; at < table.columns.size(); ++at)
        Add(html, "<th scope=col{}>{}</th>", IsNumber(table.rows.front()[at]) ? " class=num" : "",
            Escape(table.columns[at].title));
    html += "</tr>\n";
    for (const std::vector<Cell>& row : table.rows) {
        html += "<tr>";
        for (std::size_t at = 0; at < row.size(); ++at) AddHtmlCell(html, table.columns.at(at), row[at], now);
        html += "</tr>\n";
    }
    html += "</table></div>\n";
}

std::string TableCsv(const Table& table) {
    std::string csv;
    std::vector<std::string> names;
    for (const Column& column : table.columns) names.push_back(column.name);
    AddCsvRow(csv, names);
    return csv + CsvRows(table);
}

std::string CsvRows(const Table& table) {
    std::string csv;
    std::vector<std::string> fields;
    for (const std::vector<Cell>& row : table.rows) {
        fields.clear();
        for (const Cell& cell : row) fields.push_back(CellText(cell));
        AddCsvRow(csv, fields);
    }
    return csv;
}

std::string TableJson(const Table& table) {
    std::string json = "{" + PlainJson(Json(JsonText(table.name)).get()) + ":[";
    for (std::size_t at = 0; at < table.rows.size(); ++at) json += (at > 0 ? "," : "") + RowJson(table, at);
    return json + "]}";
}

std::string RowJson(const Table& table, std::size_t row) {
    const Json object(json_object_new_object());
    for (std::size_t at = 0; at < table.columns.size(); ++at)
        json_object_object_add(object.get(), table.columns[at].name.c_str(), JsonCell(table.rows.at(row).at(at)));
    return PlainJson(object.get());
}

Answer TableAnswer(const Table& table, TableFormat format) {
    if (format == TableFormat::csv) return {200, TableCsv(table), "text/csv; charset=utf-8; header=present", {}};
    return {200, TableJson(table), "application/json", {}};
}

void AddTableLinks(std::string& html, std::string_view path, std::string_view query) {
    const std::string target = Escape(query);
    Add(html, "<span class=formats><a href=\"{0}.csv{1}\">CSV</a> <a href=\"{0}.json{1}\">JSON</a></span>\n",
        Escape(path), target);
}

}  // namespace kv::lab
