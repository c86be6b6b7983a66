// Names that options give, and whether the database has heard of them.
#pragma once

#include <optional>
#include <string>

#include "lab/store/history.h"

namespace kv::lab {

/// Throws NotFoundError when the database has not heard of the filter's agent, or no record of its device or its name
/// ever came, each by itself. It tells the nearest name, or some that are known.
void RequireKnown(Store& store, const Filter& filter);

/// The same of a value's name, among those that the records of the filter have.
void RequireKnownMember(Store& store, const Filter& filter, const std::optional<std::string>& member);

}  // namespace kv::lab
