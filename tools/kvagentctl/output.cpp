#include "tools/kvagentctl/output.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>
#include <utf8.h>
#include <wchar.h>

#include "commandline/run.h"
#include "platform/console_tool.h"
#include "tools/kvagentctl/json_text.h"

namespace kv::control {

namespace {

/// Columns that a text takes on a terminal, as far as its characters are known to take one each.
std::size_t Width(const std::string& text) {
    return static_cast<std::size_t>(utf8::unchecked::distance(text.begin(), text.end()));
}

std::string InTable(const Cell& cell) {
    return cell.text ? commandline::InLine(utf8::replace_invalid(*cell.text)) : "-";
}

constexpr std::size_t columnGap = 2;

std::vector<std::size_t> ColumnWidths(const Table& table) {
    std::vector<std::size_t> widths;
    for (const std::string& column : table.columns) widths.push_back(Width(column));
    for (const auto& row : table.rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(InTable(row[i])));
    }
    return widths;
}

std::string PrintedTable(const Table& table) {
    const std::vector<std::size_t> widths = ColumnWidths(table);
    std::string text;
    const auto addLine = [&](const auto& cells, const auto& textOf) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::string cell = textOf(cells[i]);
            line += cell;
            if (i + 1 < cells.size()) line.append(widths[i] - Width(cell) + columnGap, ' ');
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    };
    addLine(table.columns, [](const std::string& name) { return name; });
    for (const auto& row : table.rows) addLine(row, InTable);
    return text;
}

std::string PrintedLines(const Table& table) {
    std::size_t width = 0;
    for (const std::string& column : table.columns) width = std::max(width, Width(column));
    std::string text;
    for (const auto& row : table.rows) {
        if (!text.empty()) text += '\n';
        for (std::size_t i = 0; i < row.size(); ++i)
            text +=
                std::string(width - Width(table.columns[i]), ' ') + table.columns[i] + " = " + InTable(row[i]) + '\n';
    }
    return text;
}

std::string JsonTextOf(json_object* value) {
    const JsonPtr owned(value, json_object_put);
    return TextOfJson(value);
}

/// The caller's; null for a cell without a value.
json_object* JsonOf(const Cell& cell) {
    if (!cell.json.empty()) return json_tokener_parse(cell.json.c_str());
    return cell.text ? JsonText(*cell.text) : nullptr;
}

std::string PrintedJson(const Table& table) {
    json_object* const rows = json_object_new_array();
    for (const auto& row : table.rows) {
        json_object* object = json_object_new_object();
        for (std::size_t i = 0; i < row.size(); ++i)
            json_object_object_add(object, table.columns[i].c_str(), JsonOf(row[i]));
        json_object_array_add(rows, object);
    }
    return JsonTextOf(rows) + "\n";
}

std::string CsvCell(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"') quoted += '"';
        quoted += character;
    }
    return quoted + '"';
}

std::string PrintedCsv(const Table& table) {
    std::string text;
    const auto addLine = [&](const auto& cells, const auto& textOf) {
        for (std::size_t i = 0; i < cells.size(); ++i) text += (i == 0 ? "" : ",") + CsvCell(textOf(cells[i]));
        text += "\r\n";
    };
    addLine(table.columns, [](const std::string& name) { return name; });
    for (const auto& row : table.rows) addLine(row, [](const Cell& cell) { return cell.text.value_or(""); });
    return text;
}

}  // namespace

Cell Cell::Literal(std::string literal) {
    Cell cell(literal);
    cell.json = std::move(literal);
    return cell;
}

Cell Cell::List(const std::vector<Cell>& elements) {
    std::string list;
    for (const Cell& element : elements) list += (list.empty() ? "" : ", ") + JsonTextOf(JsonOf(element));
    return Literal("[" + list + "]");
}

void PrintText(std::string_view text) {
    const bool isForTerminal = platform::OutputColumns() > 0;
    while (!text.empty()) {
        if (platform::WasInterrupted()) throw Interrupted();
        const std::size_t end = std::min(text.find_first_of("\t\n"), text.size());
        std::size_t shown = end;
        if (end < text.size() && text[end] == '\n' && text.substr(0, end).ends_with('\r')) --shown;  // of a line end
        fmt::print("{}{}",
                   isForTerminal ? commandline::InLine(text.substr(0, shown)) : std::string(text.substr(0, shown)),
                   text.substr(shown, end + 1 - shown));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (isForTerminal) commandline::FlushOutput();
    }
    commandline::FlushOutput();
}

TableWidth WidthOf(const Table& table) {
    TableWidth width;
    const std::vector<std::size_t> widths = ColumnWidths(table);
    for (std::size_t i = 0; i < widths.size(); ++i) {
        width.names += Width(table.columns[i]) + (i == 0 ? 0 : columnGap);
        width.longest += widths[i] + (i == 0 ? 0 : columnGap);
    }
    return width;
}

std::string Printed(const Table& table, Form form) {
    switch (form) {
        case Form::json:
            return PrintedJson(table);
        case Form::csv:
            return PrintedCsv(table);
        case Form::line:
            return PrintedLines(table);
        default:
            return PrintedTable(table);
    }
}

}  // namespace kv::control
