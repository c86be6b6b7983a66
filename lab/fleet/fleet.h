// Many agents played by one process, to see what a central server takes. They register, fetch requests and upload zips
// by the agent's own protocol, in the agent's own rhythm or a faster one.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "lab/fleet/statistics.h"

namespace kv::lab {

/// An agent's rhythm where nothing else is set: seconds between two uploads, and between two looks for requests.
inline constexpr double uploadSeconds = 300;
inline constexpr double requestSeconds = 30;

struct FleetOptions {
    std::string server;            // "http://host:port", without a slash at its end
    std::string caFile;            // empty: certificates are not verified
    std::string prefix = "FLEET";  // of the agents' keys
    int agents = 100;
    double rate = 1;    // how many times faster than an agent's rhythm
    int seconds = 300;  // how long it runs
    int records = 65;   // in each zip: a plan with 13 records a minute
};

struct FleetReport {
    Statistics registrations;
    Statistics requestLists;
    Statistics uploads;
    Statistics stops;  // reports at the end that agents stop; not of a fleet that was interrupted
    std::int64_t acceptedZips = 0;
    std::int64_t waitingZips = 0;  // not accepted yet at the end; they are with their agents still
    double seconds = 0;            // from the first request to the last answer

    /// How many zips more the server holds than before; absent when it does not tell.
    std::optional<std::int64_t> zipsHeld;

    /// Zips that the server said it had, and does not have.
    std::int64_t lost() const;
};

/// Runs a fleet to its end. `progress` is called about once a second, `interrupted` often: it ends early when that is
/// true. Agents are spread evenly over their rhythm. Throws std::runtime_error when it cannot start.
FleetReport RunFleet(const FleetOptions& options, const std::function<void(const FleetReport&)>& progress,
                     const std::function<bool()>& interrupted);

}  // namespace kv::lab
