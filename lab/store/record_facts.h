// What one record tells of itself: whose it is, when it was collected, whether it failed, and its numeric values. Reads
// the three forms of records: results of WMI queries, output of scripts, polls of SNMP devices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store/store.h"

struct json_object;

namespace kv::lab {

/// A numeric value of a record. Its member is the property of the record's row, "FreeSpace", behind what tells the row
/// from others: "/ FreeSpace". Of a polled device it is the value's OID.
struct Sample {
    std::string member;
    double number = 0;
};

struct RecordFacts {
    std::string device;          // a slave's or polled device's key; empty when the record is about the agent itself
    std::string name;            // empty when the record tells none
    std::int64_t collected = 0;  // milliseconds since 1970
    bool failed = false;
    std::string reason;           // why it failed, in one line
    std::vector<Sample> samples;  // each member once
};

/// Bounds on what one record may add to the database.
inline constexpr std::size_t maxSamples = 2000;
inline constexpr std::size_t maxDeliverySamples = 100'000;  // of all records of a zip
inline constexpr std::size_t maxNameBytes = 200;
inline constexpr std::size_t maxReasonBytes = 1000;

/// The facts of a record that an agent sent, and that arrived at this time: what it was collected at, if it does not
/// tell, or if it tells more than a day after the arrival.
RecordFacts FactsOf(std::string_view agent, const RecordText& record, std::int64_t arrived);

/// The samples of a record or an answer, which is an object, each with the value of the document that it was read from.
struct FoundSample {
    Sample sample;
    const json_object* value = nullptr;
};
std::vector<FoundSample> FindSamples(json_object* document);

/// Why a record or an answer to a request, which is an object, says that it failed; empty when it does not.
std::string FailureOf(json_object* document);

/// Of records that arrived together, moves back those of each device whose clock is ahead, so that they do not stand
/// before all that come later: the newest was collected when it arrived, those of the hour before it as long before it
/// as they say.
void SettleFuture(const std::vector<RecordFacts*>& records, std::int64_t arrived);

}  // namespace kv::lab
