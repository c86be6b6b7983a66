// Each record over time: a strip of ticks for each source.
#pragma once

#include <string>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/history.h"

namespace kv::lab {

/// How many strips the page shows.
inline constexpr std::int64_t maxTracks = 40;

void AddTracks(std::string& html, const Tracks& tracks, const Scope& scope);

Table TrackTable(const Tracks& tracks);

}  // namespace kv::lab
