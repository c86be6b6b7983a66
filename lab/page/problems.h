// What fails, and why.
#pragma once

#include <string>
#include <vector>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/history.h"

namespace kv::lab {

void AddProblems(std::string& html, const Problems& found, const std::vector<Refusal>& refusals, const Summary& summary,
                 const Scope& scope);

Table ProblemTable(const std::vector<Problem>& problems);
Table RefusalTable(const std::vector<Refusal>& refusals);

}  // namespace kv::lab
