// A record file's text, for benchmarks that pack and unpack many.
#pragma once

#include <array>
#include <cstddef>
#include <random>
#include <string>

#include "platform/utf.h"

namespace kv::bench {

inline constexpr int recordCount = 2501;
inline constexpr std::size_t recordSize = 4096;  // bytes

/// A record as a script or a query writes it: rows of a process list, no two alike.
inline std::u16string RecordText(std::mt19937& random) {
    static constexpr std::array names{"systemd", "kworker/u8:2-events_unbound", "sshd", "postgres", "nginx", "cron"};
    std::string text = R"({ "MSPCUSTOMERID": "ACME", "AGENTKEY": "7301", "DATACOLLECTTIME": ")" +
                       std::to_string(1772701507 + random() % 86400) + R"(", "ERRORMSG": "NO ERROR", "Processes": [)";
    while (text.size() < recordSize / 2) {
        text += R"( { "Name": ")" + std::string(names[random() % names.size()]) + R"(", "ProcessId": ")" +
                std::to_string(random() % 65536) + R"(", "WorkingSetSize": ")" + std::to_string(random() % 900000000) +
                R"(", "PercentProcessorTime": ")" + std::to_string(random() % 100) + R"(" },)";
    }
    text.resize(recordSize / 2);
    return platform::WideFromUtf8(text);
}

}  // namespace kv::bench
