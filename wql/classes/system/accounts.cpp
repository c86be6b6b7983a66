#include "wql/classes/system/accounts.h"

#include <cerrno>
#include <chrono>
#include <fmt/format.h>
#include <unistd.h>

#include "facts/accounts/account_files.h"
#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { host = 1, password = 2 };
};

struct UserRow {
    facts::UserEntry user;
    std::u16string host;
    std::optional<facts::PasswordEntry> password;  // null if shadow may not be read
    std::int64_t today = 0;                        // days since 1970
};

struct GroupRow {
    facts::GroupEntry group;
    std::u16string host;
};

std::optional<bool> DisabledIn(const UserRow& row) {
    return row.password ? std::optional(facts::IsDisabled(row.user, *row.password, row.today)) : std::nullopt;
}

std::u16string_view StatusOf(const UserRow& row) { return DisabledIn(row).value_or(false) ? u"Degraded" : u"OK"; }

/// One fact about a password.
std::optional<bool> FactOf(const UserRow& row, bool facts::PasswordEntry::*fact) {
    return row.password ? std::optional((*row.password).*fact) : std::nullopt;
}

/// A name with the computer's name before it.
std::u16string FullNameOf(const std::u16string& host, const std::string& name) {
    return host + u"\\" + platform::WideFromUtf8(name);
}

constexpr auto userCaption = [](const UserRow& row) { return FullNameOf(row.host, row.user.name); };
constexpr auto groupCaption = [](const GroupRow& row) { return FullNameOf(row.host, row.group.name); };

// clang-format off
constexpr PropertyInfo userProperties[] = {
    {u"AccountType", uint32, 0, "512: a normal account", [](const UserRow&) { return 512; }},
    {u"Caption", string, Need::host, "computer\\name", userCaption},
    {u"Description", string, 0, "as FullName", [](const UserRow& row) { return row.user.fullName; }},
    {u"Disabled", boolean, Need::password, "it has expired, or its password has and can no longer be changed, or it has neither a password nor a shell", [](const UserRow& row) { return DisabledIn(row); }},
    {u"Domain", string, Need::host, "the computer's name", [](const UserRow& row) { return row.host; }},
    {u"FullName", string, 0, "of GECOS", [](const UserRow& row) { return row.user.fullName; }},
    {u"InstallDate", datetime},
    {u"LocalAccount", boolean, 0, "all that are read", [](const UserRow&) { return true; }},
    {u"Lockout", boolean, Need::password, "its password was disabled", [](const UserRow& row) { return FactOf(row, &facts::PasswordEntry::isLocked); }},
    {u"Name", string, 0, "as the file has it", [](const UserRow& row) { return row.user.name; }},
    {u"PasswordChangeable", boolean, Need::password, "by its owner", [](const UserRow& row) { return FactOf(row, &facts::PasswordEntry::mayBeChanged); }},
    {u"PasswordExpires", boolean, Need::password, "it has a maximum age", [](const UserRow& row) { return FactOf(row, &facts::PasswordEntry::expires); }},
    {u"PasswordRequired", boolean, Need::password, "the password field is not empty", [](const UserRow& row) { return FactOf(row, &facts::PasswordEntry::isRequired); }},
    {u"SID", string, 0, "S-1-22-1 and the user's number", [](const UserRow& row) { return fmt::format("S-1-22-1-{}", row.user.id); }},
    {u"SIDType", uint8, 0, "1: a user", [](const UserRow&) { return 1; }},
    {u"Status", string, Need::password, "Degraded when disabled", [](const UserRow& row) { return StatusOf(row); }},
};

constexpr PropertyInfo groupProperties[] = {
    {u"Caption", string, Need::host, "computer\\name", groupCaption},
    {u"Description", string, 0, "as Name", [](const GroupRow& row) { return row.group.name; }},
    {u"Domain", string, Need::host, "the computer's name", [](const GroupRow& row) { return row.host; }},
    {u"InstallDate", datetime},
    {u"LocalAccount", boolean, 0, "all that are read", [](const GroupRow&) { return true; }},
    {u"Name", string, 0, "as the file has it", [](const GroupRow& row) { return row.group.name; }},
    {u"SID", string, 0, "S-1-22-2 and the group's number", [](const GroupRow& row) { return fmt::format("S-1-22-2-{}", row.group.id); }},
    {u"SIDType", uint8, 0, "4: an alias, as Windows calls a local group", [](const GroupRow&) { return 4; }},
    {u"Status", string, 0, "nothing is known to be wrong", [](const GroupRow&) { return u"OK"; }},
};
// clang-format on

std::int64_t Today() {
    using namespace std::chrono;
    return floor<days>(system_clock::now()).time_since_epoch().count();
}

using Passwords = std::map<std::string, facts::PasswordEntry>;

/// Absent, with a notice, if the file is there and cannot be read. Systems without one have the passwords in passwd.
std::optional<Passwords> ReadPasswords(const std::string& path, const Gathering& gathering) {
    const std::optional<std::string> text = platform::ReadSystemFile(path);
    if (text) return facts::ParseShadow(*text);
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return Passwords();
    gathering.notice(fmt::format("Facts of passwords were left out: {} cannot be read", path));
    return std::nullopt;
}

constexpr ClassInfo classes[] = {
    {u"Win32_UserAccount", u"Win32_Account", userProperties,
     [](const Gathering& gathering) { return GatherUsers(gathering, "/etc"); }, u"Domain,Name", "local user accounts"},
    {u"Win32_Group", u"Win32_Account", groupProperties,
     [](const Gathering& gathering) { return GatherGroups(gathering, "/etc"); }, u"Domain,Name", "local groups"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherUsers(const Gathering& gathering, const std::string& folder) {
    const std::optional<std::string> text = platform::ReadSystemFile(folder + "/passwd");
    if (!text) return FailedFile(folder + "/passwd", "Users", gathering);
    std::optional<Passwords> passwords;
    if (gathering.asksFor(Need::password)) passwords = ReadPasswords(folder + "/shadow", gathering);
    UserRow row;
    row.today = Today();
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    for (facts::UserEntry& user : facts::ParsePasswd(*text)) {
        row.password = facts::PasswordOf(user, passwords);
        row.user = std::move(user);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherGroups(const Gathering& gathering, const std::string& folder) {
    const std::optional<std::string> text = platform::ReadSystemFile(folder + "/group");
    if (!text) return FailedFile(folder + "/group", "Groups", gathering);
    GroupRow row;
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    for (facts::GroupEntry& group : facts::ParseGroups(*text)) {
        row.group = std::move(group);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
