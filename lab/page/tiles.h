// The tiles at the top of the page: how it stands at a glance.
#pragma once

#include <string>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/history.h"

namespace kv::lab {

void AddTiles(std::string& html, const Summary& summary, const Scope& scope);

/// One row.
Table SummaryTable(const Summary& summary, const Scope& scope);

/// "27 %", "<1 %" or ">99 %": 0 and 100 are said of none and all alone. "–" of nothing.
std::string ShareText(std::int64_t part, std::int64_t whole);

}  // namespace kv::lab
