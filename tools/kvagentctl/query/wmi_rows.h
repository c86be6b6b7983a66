// A WMI query as rows to print.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/wmi_status.h"
#include "tools/kvagentctl/output.h"

namespace kv::control {

/// What the cells of a query show.
enum class Values {
    typed,     // numbers, truth values, lists, and texts; a 64-bit number is a number
    asRecord,  // the texts that the agent's records have
};

struct WmiRows {
    Table table;                       // columns in the order of SELECT; what comes besides, in that of the first row
    std::vector<std::string> notices;  // such as that a part of the system was left out
    std::vector<std::string> hidden;   // system properties in SELECT, which no row has
    platform::WmiStatus status = platform::wmi_status::ok;
    std::string failure;  // what went wrong, in words; empty after a success
};

/// Runs a query. Rows that came before a failure are in the table. texts: UTF-8. Throws std::bad_alloc,
/// and std::runtime_error when platform::WasInterrupted.
WmiRows QueryRows(const std::string& nameSpace, const std::string& query, Values values);

/// The names between SELECT and FROM; empty for "*" and for any other text.
std::vector<std::string> SelectedNames(std::string_view query);

/// The class behind FROM; empty if a text, which may be only a beginning, does not have it.
std::string QueriedClass(std::string_view query);

}  // namespace kv::control
