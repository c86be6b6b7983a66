// How kvagentctl prints rows: for people as aligned columns, for programs as JSON or CSV.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kv::control {

enum class Form { table, json, csv };

/// Rows under named columns. A cell is UTF-8, or null where there is no value.
struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::optional<std::string>>> rows;  // each as long as columns
};

/// The text of a table, its last line end included.
///
/// table: columns aligned by the width of characters on a terminal, under their names; a null cell is "-", and a
/// control character is escaped, so that no cell leaves its line. json: an array of objects, one for each row, with
/// texts and null. csv: RFC 4180 with a header line; a null cell is empty.
std::string Printed(const Table& table, Form form);

}  // namespace kv::control
