// One table of what a view shows, from which its HTML, CSV and JSON are written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "lab/page/answer.h"
#include "lab/store/record_text.h"

namespace kv::lab {

/// Milliseconds since 1970, written as "2026-03-05 09:05:07Z"; in HTML without the date when it is today's.
struct Moment {
    std::int64_t time = 0;
};

/// A text that leads to a path of the server in HTML; elsewhere it is the text alone.
struct Link {
    std::string text;
    std::string path;  // such as "/record/7", with its query encoded already
};

/// A text whose colour in HTML says more.
enum class Mark { plain, good, bad };
struct Marked {
    std::string text;
    Mark mark = Mark::plain;
};

/// monostate stands for an absent value: an empty cell, and null in JSON. So does a number that is not finite.
using Cell = std::variant<std::monostate, std::string, std::int64_t, double, bool, Moment, Link, Marked>;

struct Column {
    std::string name;   // in CSV and JSON, such as "last_contact"
    std::string title;  // for people, such as "Last contact"
};

struct Table {
    std::string name;  // of the rows in JSON, such as "agents"
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;  // each with a cell for each column
};

/// A cell as CSV and HTML show it, not escaped.
std::string CellText(const Cell& cell);

/// Appends the table, within an element that scrolls when it is wide. Nothing without rows.
void AddHtmlTable(std::string& html, const Table& table);

/// By RFC 4180: a line of column names, then the rows, with CR LF.
std::string TableCsv(const Table& table);

/// Its rows alone, which follow those of a table that was too long to be made at once.
std::string CsvRows(const Table& table);

/// { "NAME": [ { "COLUMN": value } ] }
std::string TableJson(const Table& table);

/// The object of one row.
std::string RowJson(const Table& table, std::size_t row);

enum class TableFormat { csv, json };

/// The table as the answer to a GET of its path with ".csv" or ".json".
Answer TableAnswer(const Table& table, TableFormat format);

/// Appends links to the CSV and JSON of what a section shows: path with ".csv" and ".json", then the query, which is
/// encoded already and is empty or begins with "?".
void AddTableLinks(std::string& html, std::string_view path, std::string_view query);

}  // namespace kv::lab
