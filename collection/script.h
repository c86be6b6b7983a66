// The collector of script records: what a script prints becomes its record file, converted to UTF-16LE and otherwise as
// it is, up to a bound (collection/script_output.h).
#pragma once

#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// Runs a plan's record. One without script is skipped, with a log line.
void CollectScript(const HashTable* record);

/// Runs a script of "..\conf\scripts\" for about two minutes at most; with viewOutput "true" (any case) its output
/// becomes a record file. A fileName that leads out of that directory is refused, and so is one that AllowedScripts
/// does not have; each with a log line, as a script that fails. recordName is for these lines. 0 always.
int ExecuteScript(std::u16string_view fileName, std::u16string_view commandLineParam, const OptionalText& viewOutput,
                  const OptionalText& recordName = std::nullopt);

}  // namespace kv
