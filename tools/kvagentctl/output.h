// How kvagentctl prints rows: for people as aligned columns, for programs as JSON or CSV.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv::control {

enum class Form { table, line, json, csv };

/// One cell: UTF-8, or null where there is no value.
struct Cell {
    std::optional<std::string> text;
    std::string json = {};  // the value in JSON, where it is not a text there: a number, true, a list; else empty

    Cell(std::nullopt_t) {}
    Cell(std::optional<std::string> value) : text(std::move(value)) {}
    Cell(std::string value) : text(std::move(value)) {}
    Cell(const char* value) : text(value) {}

    /// What is the same in a table and in JSON, such as a number. literal: JSON.
    static Cell Literal(std::string literal);

    /// A list, which is JSON's in a table, too.
    static Cell List(const std::vector<Cell>& elements);

    bool operator==(const Cell&) const = default;
};

/// Rows under named columns.
struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<Cell>> rows;  // each as long as columns
};

/// The text of a table, its last line end included.
///
/// table: columns aligned by the width of characters on a terminal, under their names; a null cell is "-", and a
/// control character is escaped, so that no cell leaves its line. line: one column in a line, "name = value", and a
/// blank line between rows. json: an array of objects, one for each row. csv: RFC 4180 with a header line; a null cell
/// is empty.
std::string Printed(const Table& table, Form form);

/// An interrupt came while something was printed.
struct Interrupted : std::runtime_error {
    Interrupted() : std::runtime_error("interrupted") {}
};

/// Prints a text of several lines on standard output, at once. A terminal gets control characters other than tabs and
/// line ends escaped; a file or a pipe gets every byte. Throws std::runtime_error when it cannot be written, and
/// Interrupted when platform::WasInterrupted; the rest is not printed then.
void PrintText(std::string_view text);

/// Columns of a terminal that a table's names take, and that its longest line takes.
struct TableWidth {
    std::size_t names = 0;
    std::size_t longest = 0;
};
TableWidth WidthOf(const Table& table);

}  // namespace kv::control
