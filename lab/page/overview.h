// The page at "/": how it stands, what fails, each record over time, values, the newest records.
#pragma once

#include <string>

#include "lab/page/answer.h"
#include "lab/store/store.h"

namespace kv::lab {

/// The whole page. BadRequest when the query cannot be read.
std::string OverviewPage(Store& store, const ServletRequest& request);

/// Its changing part.
std::string OverviewFragment(Store& store, const ServletRequest& request);

}  // namespace kv::lab
