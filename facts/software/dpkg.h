// The packages that dpkg has installed, from its status file (dpkg(1)). Any thread may call these routines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "facts/software/package.h"

namespace kv::facts {

/// The packages in the text of /var/lib/dpkg/status whose files are installed. Those of which only the configuration is
/// left are not, and what is not a package is skipped. The install times stay absent.
std::vector<Package> ParseDpkgStatus(std::string_view text, const PackageNames* names = nullptr);

/// When a package was unpacked, from its list of files in a folder such as /var/lib/dpkg/info; seconds since 1970.
std::optional<std::int64_t> ReadDpkgInstallTime(const Package& package, const std::string& folder);

}  // namespace kv::facts
