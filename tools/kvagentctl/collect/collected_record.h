// What a record of a plan comes to when kvagentctl collects it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/kvagentctl/collect/planned_records.h"
#include "tools/kvagentctl/collect/script_errors.h"
#include "tools/kvagentctl/json_text.h"

namespace kv::control {

/// What a record came to.
struct CollectedRecord {
    std::optional<std::string> text;  // UTF-8; absent when no record was written
    std::size_t bytes = 0;            // of its file
    std::uint64_t milliseconds = 0;
    std::vector<std::string> lines;   // what the agent would log
    std::vector<std::string> errors;  // what a script has written to standard error
    std::string remark;               // what its server may not understand in the text
    bool isFailure = false;
};

/// Collects a record as the agent does, but with its file in a folder, from which it is taken. errors: of the scripts
/// that run meanwhile.
CollectedRecord Collect(const PlannedRecord& planned, const std::u16string& folder, ScriptErrors& errors);

/// Null for a text that is not JSON.
JsonPtr ParsedJson(const std::string& text);

}  // namespace kv::control
