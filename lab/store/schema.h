// The tables of a lab's database. user_version counts their versions; applicationId marks the file as a lab's.
#pragma once

#include <sqlite3.h>
#include <string>

namespace kv::lab {

/// Makes the tables in an empty database, and adds those that an older version lacks; its data stays. DatabaseError,
/// with nothing changed, when the database is of a newer version or is not a lab's; path is for the message.
void SettleSchema(sqlite3* connection, const std::string& path);

}  // namespace kv::lab
