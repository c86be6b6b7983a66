// The agent's health as a file, "..\logs\status.json", for kvagentctl and for whoever else asks how the agent is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv {

/// What an agent tells of itself. Times are seconds since 1970, 0 for never. Texts are UTF-8.
struct HealthSnapshot {
    std::string version;
    std::int64_t processId = 0;
    std::int64_t startTime = 0;
    std::int64_t writeTime = 0;  // when the file was written

    std::string lastAddress;            // of the server, that accepted the last upload
    std::int64_t lastUploadTime = 0;    // accepted
    std::int64_t lastContactTime = 0;   // the server answered anything
    std::int64_t registrationTime = 0;  // the last attempt
    std::string registration;           // what it came to, in words

    bool isCollecting = true;
    std::int64_t collectionStopTime = 0;  // while it is stopped

    std::int64_t lastFailureTime = 0;
    std::string lastFailure;  // what failed and why, one line

    std::vector<std::pair<std::string, std::uint64_t>> counts;  // since the start, as "recordsWritten"
};

/// Null when there is no such file, or it is not one that an agent writes; failure then says why.
std::optional<HealthSnapshot> ReadHealthFile(std::u16string_view path, std::string& failure);

}  // namespace kv
