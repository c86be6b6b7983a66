#include "tools/kvagentctl/output.h"

#include <algorithm>
#include <json-c/json.h>
#include <memory>
#include <utf8.h>
#include <wchar.h>

#include "commandline/run.h"

namespace kv::control {

namespace {

/// Columns that a text takes on a terminal, as far as its characters are known to take one each.
std::size_t Width(const std::string& text) {
    return static_cast<std::size_t>(utf8::unchecked::distance(text.begin(), text.end()));
}

std::string Cell(const std::optional<std::string>& cell) {
    return cell ? commandline::InLine(utf8::replace_invalid(*cell)) : "-";
}

std::string PrintedTable(const Table& table) {
    std::vector<std::size_t> widths;
    for (const std::string& column : table.columns) widths.push_back(Width(column));
    for (const auto& row : table.rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(Cell(row[i])));
    }
    std::string text;
    const auto addLine = [&](const auto& cells, const auto& textOf) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::string cell = textOf(cells[i]);
            line += cell;
            if (i + 1 < cells.size()) line.append(widths[i] - Width(cell) + 2, ' ');
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    };
    addLine(table.columns, [](const std::string& name) { return name; });
    for (const auto& row : table.rows) addLine(row, Cell);
    return text;
}

std::string PrintedJson(const Table& table) {
    const std::unique_ptr<json_object, decltype(&json_object_put)> rows(json_object_new_array(), json_object_put);
    for (const auto& row : table.rows) {
        json_object* object = json_object_new_object();
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string text = row[i] ? utf8::replace_invalid(*row[i]) : "";
            json_object* value =
                row[i] ? json_object_new_string_len(text.data(), static_cast<int>(text.size())) : nullptr;
            json_object_object_add(object, table.columns[i].c_str(), value);
        }
        json_object_array_add(rows.get(), object);
    }
    return std::string(json_object_to_json_string_ext(
               rows.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE)) +
           "\n";
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
    for (const auto& row : table.rows)
        addLine(row, [](const std::optional<std::string>& cell) { return cell.value_or(""); });
    return text;
}

}  // namespace

std::string Printed(const Table& table, Form form) {
    if (form == Form::json) return PrintedJson(table);
    return form == Form::csv ? PrintedCsv(table) : PrintedTable(table);
}

}  // namespace kv::control
