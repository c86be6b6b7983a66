// What kvagentctl check says of a file that cannot be read as a plan.
#pragma once

#include <string>
#include <string_view>

#include "tools/kvagentctl/check/findings.h"

namespace kv::control {

/// Where in a file its text goes wrong, and what to do about it. where: as a finding names the plan; failure: as
/// ReadPlanFile tells it.
Finding FaultOfPlanText(const std::string& where, std::string_view bytes, const std::string& failure);

}  // namespace kv::control
