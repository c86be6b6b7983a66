#include "facts/software/rpm.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <unistd.h>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

// Signs that stand in no text of a package.
constexpr std::string_view fieldEnd = "\x1f";
constexpr std::string_view packageEnd = "\x1e";

constexpr const char* listFormat =
    "%{NAME}\x1f%{ARCH}\x1f%|EPOCH?{%{EPOCH}:}|%{VERSION}-%{RELEASE}\x1f%{SUMMARY}\x1f%|VENDOR?{%{VENDOR}}|\x1f"
    "%|URL?{%{URL}}|\x1f%|BUGURL?{%{BUGURL}}|\x1f%{INSTALLTIME}\x1e";

/// A pattern that rpm matches with a name in any letter case; empty for what is not the name of a package.
std::string PatternOf(const std::string& name) {
    std::string pattern;
    for (const char sign : name) {
        const auto unit = static_cast<unsigned char>(sign);
        if (std::isalpha(unit) != 0) {
            const auto small = static_cast<char>(std::tolower(unit));
            const auto large = static_cast<char>(std::toupper(unit));
            pattern.append("[").append(1, small).append(1, large).append("]");
        } else if (std::isdigit(unit) != 0 || std::string_view("-._+").find(sign) != std::string_view::npos) {
            pattern += sign;
        } else {
            return {};
        }
    }
    return pattern.starts_with('-') ? std::string() : pattern;
}

}  // namespace

std::string FindRpmDatabase(const std::string& root) {
    constexpr std::array folders{"/usr/lib/sysimage/rpm", "/var/lib/rpm"};
    constexpr std::array files{"/rpmdb.sqlite", "/Packages.db", "/Packages"};  // of rpm's three formats
    for (const char* folder : folders) {
        for (const char* file : files) {
            if (access((root + folder + file).c_str(), F_OK) == 0 || errno == EACCES) return root + folder;
        }
    }
    return {};
}

std::vector<std::string> RpmListCommand(const std::string& database, const PackageNames* names) {
    std::vector<std::string> command{"/usr/bin/rpm",  "--dbpath",   database,        "-qa",
                                     "--nosignature", "--nodigest", "--queryformat", listFormat};
    if (names == nullptr) return command;
    const std::size_t length = command.size();
    for (const std::string& name : *names) {
        if (std::string pattern = PatternOf(name); !pattern.empty()) command.push_back(std::move(pattern));
    }
    return command.size() > length ? command : std::vector<std::string>();
}

std::vector<Package> ParseRpmList(std::string_view text) {
    std::vector<Package> packages;
    while (!text.empty()) {
        std::string_view line = TakeUpTo(packageEnd, text);
        Package package;
        for (std::string* field : {&package.name, &package.architecture, &package.version, &package.summary,
                                   &package.vendor, &package.homepage, &package.bugReports}) {
            *field = TakeUpTo(fieldEnd, line);
        }
        if (const std::optional<std::uint64_t> time = NumberOf(line))
            package.installed = static_cast<std::int64_t>(*time);
        if (!package.name.empty() && package.name != "gpg-pubkey") packages.push_back(std::move(package));
    }
    return packages;
}

}  // namespace kv::facts
