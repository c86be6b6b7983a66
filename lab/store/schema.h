// The tables of the lab's database, and how one of an older version gets them.
#pragma once

#include "lab/store/database.h"

namespace kv::lab {

/// Upgrades the tables of an older version, and makes them in an empty database when opening allows it. DatabaseError
/// when the database is something else, or of a newer version.
void SettleSchema(Database& database, Opening opening);

}  // namespace kv::lab
