#include "wql/classes/software/products.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <system_error>
#include <unistd.h>

#include "facts/command_output.h"
#include "facts/network/host_names.h"
#include "facts/software/dpkg.h"
#include "facts/software/dpkg_log.h"
#include "facts/software/rpm.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using enum CimType;
using facts::Package;

struct Need {
    enum Bits : std::uint32_t { time = 1, host = 2 };
};

struct ProductRow {
    Package package;
    std::string number;  // what tells it apart from one of the same name and version
};

struct UpdateRow {
    std::string package;
    std::string version;
    std::string description;
    std::string comments;
    std::optional<std::int64_t> time;
    std::u16string host;

    std::string id() const { return package + " " + version; }
};

/// The day of a moment in local time, in a form of strftime; NULL if it is not known.
CimValue DayOf(std::optional<std::int64_t> moment, const char* form) {
    const std::time_t seconds = moment.value_or(0);
    std::tm parts{};
    std::array<char, 32> text{};
    if (!moment || localtime_r(&seconds, &parts) == nullptr) return {};
    return CimValue(std::string_view(text.data(), std::strftime(text.data(), text.size(), form, &parts)));
}

CimValue MomentOf(std::optional<std::int64_t> seconds) {
    constexpr std::int64_t microseconds = 1'000'000;
    constexpr std::int64_t latest =
        std::numeric_limits<std::int64_t>::max() / microseconds;  // a file may have any time
    return seconds ? CimValue(DmtfTime(std::clamp(*seconds, -latest, latest) * microseconds)) : CimValue();
}

// clang-format off
constexpr PropertyInfo productProperties[] = {
    {u"AssignmentType", uint16, 0, "1: for all users of the computer", [](const ProductRow&) { return 1; }},
    {u"Caption", string, 0, "as Name", [](const ProductRow& row) { return row.package.name; }},
    {u"Description", string, 0, "the package's summary", [](const ProductRow& row) { return facts::KnownText(row.package.summary); }},
    {u"HelpLink", string, 0, "where bugs are reported, if the package says so", [](const ProductRow& row) { return facts::KnownText(row.package.bugReports); }},
    {u"HelpTelephone", string},
    {u"IdentifyingNumber", string, 0, "name and architecture: bash:amd64 of dpkg, bash.x86_64 of rpm", [](const ProductRow& row) { return row.number; }},
    {u"InstallDate", string, Need::time, "yyyymmdd, the day on which this version was installed", [](const ProductRow& row) { return DayOf(row.package.installed, "%Y%m%d"); }},
    {u"InstallDate2", datetime, Need::time, "when this version was installed: the time of dpkg's list of its files, or rpm's INSTALLTIME",
        [](const ProductRow& row) { return MomentOf(row.package.installed); }},
    {u"InstallLocation", string},
    {u"InstallSource", string},
    {u"InstallState", sint16, 0, "5 installed; -6 unpacked, but not configured", [](const ProductRow& row) { return row.package.isComplete ? 5 : -6; }},
    {u"Language", string},
    {u"LocalPackage", string},
    {u"Name", string, 0, "of the package", [](const ProductRow& row) { return row.package.name; }},
    {u"PackageCache", string},
    {u"PackageCode", string},
    {u"PackageName", string},
    {u"ProductID", string},
    {u"RegCompany", string},
    {u"RegOwner", string},
    {u"SKUNumber", string},
    {u"Transforms", string},
    {u"URLInfoAbout", string, 0, "the home page of what is packaged", [](const ProductRow& row) { return facts::KnownText(row.package.homepage); }},
    {u"URLUpdateInfo", string},
    {u"Vendor", string, 0, "dpkg's Origin, else the name of its Maintainer; rpm's Vendor", [](const ProductRow& row) { return facts::KnownText(row.package.vendor); }},
    {u"Version", string, 0, "with epoch and release", [](const ProductRow& row) { return row.package.version; }},
    {u"WordCount", uint32},
};

constexpr PropertyInfo updateProperties[] = {
    {u"Caption", string, 0, "as HotFixID", [](const UpdateRow& row) { return row.id(); }},
    {u"CSName", string, Need::host, "the computer's name", [](const UpdateRow& row) { return row.host; }},
    {u"Description", string, 0, "Update by dpkg's log; Installed or updated by rpm, which does not tell these apart", [](const UpdateRow& row) { return row.description; }},
    {u"FixComments", string, 0, "what the update replaced; empty if that is not known", [](const UpdateRow& row) { return row.comments; }},
    {u"HotFixID", string, 0, "package and version", [](const UpdateRow& row) { return row.id(); }},
    {u"InstallDate", datetime, 0, "when it was done", [](const UpdateRow& row) { return MomentOf(row.time); }},
    {u"InstalledBy", string},
    {u"InstalledOn", string, 0, "the day, m/d/yyyy", [](const UpdateRow& row) { return DayOf(row.time, "%-m/%-d/%Y"); }},
    {u"Name", string, 0, "of the package", [](const UpdateRow& row) { return row.package; }},
    {u"ServicePackInEffect", string, 0, "empty: there are no service packs", [](const UpdateRow&) { return u""; }},
    {u"Status", string},
};
// clang-format on

/// The names that WHERE leaves; absent for all.
std::optional<facts::PackageNames> NamesToRead(const Gathering& gathering) {
    const std::vector<CimValue>* values = gathering.valuesOf(u"Name");
    if (values == nullptr) return std::nullopt;
    facts::PackageNames names;
    for (const CimValue& value : *values) {
        if (const auto* name = std::get_if<std::u16string>(&value.held)) names.push_back(platform::Utf8FromWide(*name));
    }
    return names;
}

/// What is to be read, and what has come of it.
struct Reading {
    const Gathering& gathering;
    const std::string& root;
    const facts::PackageNames* names = nullptr;  // null: all
    WmiStatus status = wmi_status::ok;
    bool hasObjects = false;

    void fail(WmiStatus failure) {
        if (!IsFailure(status)) status = failure;
    }
    WmiStatus outcome() const { return hasObjects ? wmi_status::ok : status; }
};

std::vector<Package> ReadDpkgPackages(Reading& reading) {
    // A package takes about a kilobyte.
    constexpr std::size_t maxStatusBytes = std::size_t{64} * 1024 * 1024;
    const std::string folder = reading.root + "/var/lib/dpkg";
    const std::string path = folder + "/status";
    const std::optional<std::string> text = platform::ReadOrdinaryFile(path, maxStatusBytes);
    if (!text) {
        if (errno != ENOENT) reading.fail(FailedFile(path, "Packages of dpkg", reading.gathering));
        return {};
    }
    std::vector<Package> packages = facts::ParseDpkgStatus(*text, reading.names);
    if (!reading.gathering.asksFor(Need::time)) return packages;
    const std::string lists = folder + "/info";
    if (access(lists.c_str(), X_OK) != 0 && errno == EACCES)
        reading.gathering.notice(fmt::format("InstallDate was left out: {} may not be searched", lists));
    for (Package& package : packages) package.installed = facts::ReadDpkgInstallTime(package, lists);
    return packages;
}

/// Why the list of rpm did not come; empty if it did.
std::string FailureOf(const facts::CommandOutput& list) {
    if (list.failure != 0) return std::generic_category().message(list.failure);
    if (list.exitCode == 0) return {};
    return fmt::format("exit code {}: {}", list.exitCode, facts::Trimmed(list.complaint));
}

std::vector<Package> ReadRpmPackages(Reading& reading) {
    // A list of thousands of packages takes a second or two and a megabyte. A database whose lock was left behind holds
    // rpm up forever.
    constexpr facts::CommandLimits limits{std::chrono::seconds(10), std::size_t{16} * 1024 * 1024};
    const std::string database = facts::FindRpmDatabase(reading.root);
    if (database.empty()) return {};
    const std::vector<std::string> command = facts::RpmListCommand(database, reading.names);
    if (command.empty()) return {};
    const facts::CommandOutput list = facts::RunCommand(command, limits);
    if (const std::string failure = FailureOf(list); !failure.empty()) {
        reading.gathering.notice(fmt::format("Packages of rpm were left out; {} -qa failed: {}", command[0], failure));
        reading.fail(list.failure == ETIMEDOUT ? wmi_status::timedOut : wmi_status::providerFailure);
        return {};
    }
    return facts::ParseRpmList(list.output);
}

/// Packages of one name and version, which several architectures may have, as one with the last time.
std::vector<Package> WithoutArchitectures(std::vector<Package> packages) {
    std::map<std::pair<std::string, std::string>, std::size_t> places;
    std::vector<Package> merged;
    for (Package& package : packages) {
        const auto [place, isNew] = places.try_emplace({package.name, package.version}, merged.size());
        if (isNew) {
            merged.push_back(std::move(package));
        } else {
            merged[place->second].installed = std::max(merged[place->second].installed, package.installed);
        }
    }
    return merged;
}

bool HandOver(std::vector<Package> packages, char beforeArchitecture, Reading& reading) {
    for (Package& package : packages) {
        ProductRow row{std::move(package), {}};
        row.number = row.package.name + beforeArchitecture + row.package.architecture;
        reading.hasObjects = true;
        if (!reading.gathering.row(&row)) return false;
    }
    return true;
}

bool HandOverUpdates(const std::vector<facts::PackageUpdate>& updates, UpdateRow& row, Reading& reading) {
    row.description = "Update";
    for (const facts::PackageUpdate& update : updates) {
        row.package = update.package;
        row.version = update.version;
        row.comments = "Replaces " + update.formerVersion;
        row.time = update.time;
        reading.hasObjects = true;
        if (!reading.gathering.row(&row)) return false;
    }
    return true;
}

std::vector<facts::PackageUpdate> ReadUpdates(Reading& reading) {
    const facts::DpkgLogs logs = facts::ReadDpkgLogs(reading.root + "/var/log");
    for (const std::string& path : logs.unreadable) {
        const WmiStatus failure = FailedFile(path, "Updates", reading.gathering);
        if (logs.texts.empty()) reading.fail(failure);
    }
    for (const std::string& path : logs.tooLong) {
        reading.gathering.notice(
            fmt::format("Updates were left out; {} has more than {} MB", path, facts::maxDpkgLogBytes >> 20));
        if (logs.texts.empty()) reading.fail(wmi_status::providerFailure);
    }
    if (!logs.areAll) reading.gathering.notice("Updates in the oldest logs of dpkg were left out: there is too much");
    return facts::ParseDpkgLogs(logs.texts);
}

constexpr ClassInfo classes[] = {
    {u"Win32_Product", u"CIM_Product", productProperties,
     [](const Gathering& gathering) { return GatherProducts(gathering, ""); }, u"IdentifyingNumber,Name,Version",
     "installed packages of dpkg and rpm"},
    {u"Win32_QuickFixEngineering", u"CIM_LogicalElement", updateProperties,
     [](const Gathering& gathering) { return GatherUpdates(gathering, ""); }, u"HotFixID,ServicePackInEffect",
     "updates of packages, and when they were installed"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherProducts(const Gathering& gathering, const std::string& root) {
    const std::optional<facts::PackageNames> names = NamesToRead(gathering);
    Reading reading{gathering, root, names ? &*names : nullptr};
    if (!HandOver(ReadDpkgPackages(reading), ':', reading)) return wmi_status::ok;
    HandOver(ReadRpmPackages(reading), '.', reading);
    return reading.outcome();
}

WmiStatus GatherUpdates(const Gathering& gathering, const std::string& root) {
    Reading reading{gathering, root, nullptr};
    UpdateRow row;
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (!HandOverUpdates(ReadUpdates(reading), row, reading)) return wmi_status::ok;
    row.description = "Installed or updated";
    row.comments.clear();
    for (Package& package : WithoutArchitectures(ReadRpmPackages(reading))) {
        row.package = std::move(package.name);
        row.version = std::move(package.version);
        row.time = package.installed;
        reading.hasObjects = true;
        if (!gathering.row(&row)) break;
    }
    return reading.outcome();
}

}  // namespace kv::wql
