// Numeric values over time: the series that the records of the sources have.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/store/history.h"

namespace kv::lab {

struct SeriesName {
    std::int64_t number = 0;
    std::string agent;
    std::string device;
    std::string name;  // of the record
    std::string member;
};

/// Those that have samples in the range, the longest known first, at most `limit` of them. member: absent stands for
/// all.
struct SeriesList {
    std::vector<SeriesName> series;
    bool more = false;  // others are left out
};
SeriesList ReadSeries(Store& store, const Range& range, const Filter& filter, const std::optional<std::string>& member,
                      std::int64_t limit);

/// When the first sample of a series within a range was collected; absent without samples.
std::optional<std::int64_t> ReadFirstTime(Store& store, std::int64_t series, const Range& range);

/// The samples of one series within one of the equal parts of a range.
struct Part {
    std::int64_t first = 0;  // when its first sample was collected
    std::int64_t last = 0;
    double low = 0;
    double high = 0;
    double average = 0;
};

/// The parts that have samples, in order. A part is `part` milliseconds long and begins at a multiple of it.
std::vector<Part> ReadParts(Store& store, std::int64_t series, const Range& range, std::int64_t part);

/// The same of a counter: low, high and average are its growth in one second. Growth is reckoned from each sample to
/// the next, so no part hides a wrap. A counter that is lower than before has wrapped if it stood beyond half of 2^bits
/// and now is below; else its device has started again, and what it grew is not known. A part without any known growth
/// has NaN as all three.
std::vector<Part> ReadRates(Store& store, std::int64_t series, const Range& range, std::int64_t part, int bits);

/// The newest number within a range, and how much a counter grew in one second from the sample before it; NaN when that
/// is not known.
double ReadLatestNumber(Store& store, std::int64_t series, const Range& range);
double ReadLatestRate(Store& store, std::int64_t series, const Range& range, int bits);

/// A value of its source's newest record.
struct LatestValue {
    SeriesName series;
    std::int64_t collected = 0;
    double number = 0;
};

/// Those of sources whose newest record was collected since a time, by agent, device, name and member, at most `limit`.
std::vector<LatestValue> ReadLatestValues(Store& store, const Filter& filter, std::int64_t since, std::int64_t limit);

}  // namespace kv::lab
