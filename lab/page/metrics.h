// What the lab holds, for Prometheus: every numeric value that came lately, and the lab's own counts.
#pragma once

#include <cstdint>
#include <string>

#include "lab/store/store.h"

namespace kv::lab {

/// OpenMetrics 1.0, https://github.com/prometheus/OpenMetrics (text format).
inline constexpr const char* metricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";

/// A value is left out when the newest record of its source was collected longer ago: who scrapes it takes it for one
/// of now.
inline constexpr std::int64_t metricsMilliseconds = 15 * 60 * 1000;

/// Values that go up and down are samples of kv_value, counters of kv_cumulative_total. The labels are agent, device
/// and name of the record, the row of the value in its record, the property, and its unit where it is known; the number
/// is in that unit.
std::string Metrics(Store& store, std::int64_t now);

}  // namespace kv::lab
