// Performance classes. One table of counters gives two classes: Win32_PerfRawData_<name> with the counters as they
// stand, and Win32_PerfFormattedData_<name> with what they come to over the time since the class's previous sample.
//
// A class keeps its samples itself: each query of the formatted class takes one, and the one before is the base of its
// figures. A sample less than a second old is no base, as too little has happened since; then the one before it serves.
// Where there is no base, for the first query of all or an object that was not there, the figures are those since the
// object came to be: the system's start, or the process's.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/wmi/wmi_class.h"

namespace platform::wmi {

/// What a counter holds, and how its formatted figure comes of it. In times, units are 100 ns.
enum class CounterKind {
    value,              // the figure as it stands
    rate,               // growth in a second
    percentOfTime,      // growth, a time, in percent of the time gone by
    percentOfTimeLeft,  // what percentOfTime leaves of 100
    fraction,           // percent that the value is of the base
    averageTime,        // growth, a time, for each growth of the base by one, in seconds
    averageAmount,      // growth for each growth of the base by one
    queueLength,        // growth, a time added up over all that waited, in parts of the time gone by
    elapsedTime,        // the value is a moment; seconds since
};

struct CounterInfo {
    std::u16string_view name;
    CimType type = CimType::uint64;  // in both classes
    CounterKind kind = CounterKind::value;
    std::uint32_t needs = 0;   // as those of a property
    std::string_view meaning;  // unit and source
    std::uint64_t (*value)(const void* row) = nullptr;
    std::uint64_t (*base)(const void* row) = nullptr;  // fraction and averages only; in the raw class <name>_Base
    CimType baseType = CimType::uint32;
};

}  // namespace platform::wmi
