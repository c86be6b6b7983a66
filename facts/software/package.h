// A software package, as the databases of dpkg and rpm know it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kv::facts {

struct Package {
    std::string name;
    std::string architecture;
    std::string version;  // with epoch and release: "2:1.5-3"
    std::string summary;  // one line
    std::string vendor;   // empty if the database has none
    std::string homepage;
    std::string bugReports;                 // an address, such as "https://bugs.example.org"
    bool isComplete = true;                 // false: it is unpacked, and not or no longer configured
    std::optional<std::int64_t> installed;  // when this version was installed, seconds since 1970
};

/// The packages to look for; null for all. Names are compared without regard to the case of ASCII letters.
using PackageNames = std::vector<std::string>;

}  // namespace kv::facts
