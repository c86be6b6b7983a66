// What waits on the disk for the server: record files in "data", zips in "zipdata". Only looks; callable from any
// thread, and from another process while the agent works.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/errors.h"

namespace kv {

struct WaitingFiles {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;      // of those that could be looked at
    std::int64_t oldestTime = 0;  // of the oldest, seconds since 1970; 0 when nothing waits

    /// Why the folder cannot be searched, or one of its files cannot be looked at; else success. A folder that does not
    /// exist yet holds nothing; directoryName when something else stands in its place.
    platform::Error error = platform::error::success;
};

/// Below a bin directory, whose path ends in a separator. What vanishes meanwhile counts or does not.
WaitingFiles MeasureWaitingRecords(std::u16string_view binPath);
WaitingFiles MeasureWaitingZips(std::u16string_view binPath);

/// Only their number, which is one search.
std::uint64_t CountWaitingZips(std::u16string_view binPath);

/// Seconds since 1970 of a file time (platform::FileInformation).
std::int64_t SecondsOfFileTime(std::uint64_t fileTime);

}  // namespace kv
