// A plan that stands under another name than the agent reads.
#pragma once

#include <string>
#include <string_view>

namespace kv::control {

/// What to do about a plan that does not exist when a file beside it looks like one: "is plan.json beside it meant?
/// ...". Empty when no file does.
std::string PlanNeighbourHint(std::u16string_view plan);

}  // namespace kv::control
