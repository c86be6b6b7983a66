// The agent's own counts as an OpenMetrics text file, for the setting MetricsFile. The textfile collector of
// Prometheus's node_exporter reads it, too: it knows an older form of the format, in which "info" is not a type.
#pragma once

#include <string>
#include <string_view>

#include "agent/health_file.h"
#include "exchange/waiting_files.h"

namespace kv {

/// What stands in the file. Pure.
std::string MetricsText(const HealthSnapshot& health, const WaitingFiles& records, const WaitingFiles& zips);

/// Whether the agent may replace what is at a path: success for metrics of the agent, whole or as a power failure
/// leaves them, for an empty file, and for nothing at all. alreadyExists for what is somebody else's or not a file, and
/// accessDenied for what may not be read. Throws std::bad_alloc.
[[nodiscard]] platform::Error MayReplaceMetrics(std::u16string_view path);

/// The file is whole at every moment, and everyone may read it: it is written beside its name, with ".tmp" behind it,
/// and renamed. Its folder has to be there. What MayReplaceMetrics refuses stays, and its error is the result.
[[nodiscard]] platform::Error WriteMetricsFile(std::u16string_view path, std::string_view text);

}  // namespace kv
