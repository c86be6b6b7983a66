// Takes old records out of the database, so that a lab can run for long.
#pragma once

#include <cstdint>

#include "lab/store/store.h"

namespace kv::lab {

/// Deletes what is older than a time, milliseconds since 1970: records by their time of collection, with their samples,
/// and deliveries, sources and series of which nothing is left; agents that have called no more and sent nothing;
/// refusals, notices and answers; requests that have ended, with their plans but for the newest of each agent. Works in
/// transactions of many rows each, between which others write. Gives how many records went; SQLite's file becomes
/// smaller.
std::int64_t Prune(Store& store, std::int64_t before);

}  // namespace kv::lab
