// The agent's health as a file, "..\logs\status.json", for kvagentctl and for whoever else asks how the agent is.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/agent_health.h"
#include "platform/errors.h"

namespace kv {

/// What an agent tells of itself. Times are seconds since 1970, 0 for never. Texts are UTF-8.
struct HealthSnapshot {
    std::string version = {};
    std::string directory = {};  // the bin directory, as the system names it; a copy of the file tells of the original
    std::int64_t processId = 0;  // 0 once the agent has been stopped
    std::int64_t startTime = 0;
    std::int64_t writeTime = 0;  // when the file was written

    std::string lastAddress = {};       // of the server, that accepted the last upload
    std::int64_t lastUploadTime = 0;    // accepted
    std::int64_t lastContactTime = 0;   // the server answered anything
    std::int64_t registrationTime = 0;  // the last attempt
    std::string registration = {};      // what it came to, in words

    bool isInConsole = false;  // runs by "/t", which only ends by being ended
    bool isCollecting = true;
    std::int64_t collectionStopTime = 0;  // while it is stopped
    std::string obstacle = {};            // why nothing is collected, and what ends that; else empty
    std::string missingPlan = {};         // the same of one agent's plan, while others' are in use

    std::int64_t lostRecordTime = 0;  // when a record was last lost
    std::string lostRecord = {};      // which one, and why

    std::int64_t lastFailureTime = 0;
    std::string lastFailure = {};  // what failed and why, one line

    // As LastEvents has them.
    std::int64_t sendingFailureTime = 0;
    std::string sendingFailure = {};
    bool isTrustFailure = false;
    std::int64_t sendingFailsSince = 0;

    std::vector<std::pair<std::string, std::uint64_t>> counts = {};  // since the start, as "recordsWritten"

    bool operator==(const HealthSnapshot&) const = default;
};

/// A count of foundation/agent_health.h.
struct HealthCountName {
    std::string_view name;    // in status.json
    std::string_view metric;  // in OpenMetrics, without "kvagent_" and "_total"
    std::string_view meaning;
    HealthCount AgentHealth::*count;
};

/// All of them, in the order of HealthSnapshot::counts.
std::span<const HealthCountName> HealthCounts();

/// Whether requests are not sent, because the server is not trusted, and nobody has answered since.
bool IsDistrusting(const HealthSnapshot& health);

/// How the agent of this process is now. Throws std::bad_alloc.
HealthSnapshot CurrentHealth();

/// "..\logs\status.json" of a bin directory, whose path ends in a separator.
std::u16string HealthFilePath(std::u16string_view binPath);

/// The file is whole at every moment: it is written beside its name and renamed. It may be damaged after a power
/// failure.
[[nodiscard]] platform::Error WriteHealthFile(std::u16string_view path, const HealthSnapshot& health);

/// Null when the file is absent, cannot be read, or was not written by an agent; failure then says why. A member that
/// is absent or of another type keeps its default.
std::optional<HealthSnapshot> ReadHealthFile(std::u16string_view path, std::string& failure);

}  // namespace kv
