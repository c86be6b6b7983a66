// Drives for CDs and DVDs, from /proc/sys/dev/cdrom/info, which has a column for each drive.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

struct CdDriveInfo {
    std::string name;         // such as "sr0"
    std::uint64_t speed = 0;  // the fastest, in units of 176 KB a second; 0 if it does not tell
    std::uint64_t slots = 0;  // discs that it holds
    bool readsDvd = false;
    bool writesCd = false;
    bool writesDvd = false;
};

/// Lines of other forms are left out.
std::vector<CdDriveInfo> ParseCdromInfo(std::string_view text);

}  // namespace kv::facts
