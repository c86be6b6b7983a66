// A card for each numeric value: what it is now, its course over the range, its smallest and largest number.
#pragma once

#include <string>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/series.h"
#include "lab/store/store.h"

namespace kv::lab {

/// Appends the section of the values that came within the scope's range; nothing without values. What changed comes
/// before what stood still.
void AddValueCards(std::string& html, Store& store, const Scope& scope);

/// The latest values of the scope's sources, a row for each.
Table ValueTable(Store& store, const Scope& scope);

/// The path of the large plot of a series within a scope.
std::string PlotPath(const Scope& scope, const SeriesName& series);

}  // namespace kv::lab
