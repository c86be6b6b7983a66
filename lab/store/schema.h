// The tables of the lab's database, and how one of an older version gets them.
#pragma once

#include "lab/store/database.h"

namespace kv::lab {

/// Makes the tables in a new database, and upgrades those of an older version. DatabaseError when the database is
/// something else, or of a newer version.
void SettleSchema(Database& database);

}  // namespace kv::lab
