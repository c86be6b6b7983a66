// The packages that rpm has installed. rpm itself lists them, because the format of its database differs from version
// to version.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "facts/software/package.h"

namespace kv::facts {

/// The folder below a root that holds rpm's database, or may, because it cannot be looked into; empty without one.
std::string FindRpmDatabase(const std::string& root = "");

/// The words of a command that lists the packages of a database; empty if none of the names can be that of a package.
std::vector<std::string> RpmListCommand(const std::string& database, const PackageNames* names = nullptr);

/// What that command prints. Keys, which rpm lists too, are not packages. Any thread may parse.
std::vector<Package> ParseRpmList(std::string_view text);

}  // namespace kv::facts
