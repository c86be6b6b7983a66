// Uploaded zips in the database, with what their records tell.
#pragma once

#include "lab/store/store.h"

namespace kv::lab {

/// Adds to the deliveries of a database of version 2 what version 3 knows of them. Within the caller's transaction.
void CompleteDeliveries(Database& database);

/// Lets uploads wait until the caller's transaction ends, and waits for those that go on. In SQLite each transaction
/// does.
void KeepUploadsOut(Database& database);

}  // namespace kv::lab
