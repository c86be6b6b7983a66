// The large plot of a value, of one agent or of many, with its axes and its numbers.
#pragma once

#include <string>

#include "lab/page/answer.h"
#include "lab/page/table.h"
#include "lab/store/store.h"

namespace kv::lab {

/// The page at "/plot": the query names a scope and, as "member", the value; without an agent it draws a line for each.
/// BadRequest when the query cannot be read.
std::string PlotPage(Store& store, const ServletRequest& request);

/// Its changing part.
std::string PlotFragment(Store& store, const ServletRequest& request);

/// The points of its lines.
Table PlotTable(Store& store, const ServletRequest& request);

}  // namespace kv::lab
