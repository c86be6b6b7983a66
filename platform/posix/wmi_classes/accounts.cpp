#include "platform/posix/wmi_classes/accounts.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>

#include "platform/posix/facts/host_names.h"
#include "platform/posix/facts/system_text.h"
#include "platform/posix/wmi_classes/families.h"
#include "platform/utf.h"

namespace platform::wmi {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { host = 1, password = 2 };
};

struct UserRow {
    UserEntry user;
    std::u16string host;
    std::optional<PasswordEntry> password;  // none: shadow may not be read, or has no line of this user
    std::int64_t today = 0;                 // days since 1970
};

struct GroupRow {
    GroupEntry group;
    std::u16string host;
};

/// Splits at colons.
std::vector<std::string_view> FieldsOf(std::string_view line) {
    std::vector<std::string_view> fields;
    for (std::size_t end = line.find(':'); end != std::string_view::npos; end = line.find(':')) {
        fields.push_back(line.substr(0, end));
        line.remove_prefix(end + 1);
    }
    fields.push_back(line);
    return fields;
}

std::optional<std::uint32_t> IdOf(std::string_view text) {
    const std::optional<std::uint64_t> id = NumberOf(text);
    return id && *id <= UINT32_MAX ? std::optional(static_cast<std::uint32_t>(*id)) : std::nullopt;
}

PasswordEntry PasswordOf(const std::vector<std::string_view>& fields) {
    constexpr std::uint64_t never = 99999;  // what useradd writes for it
    const std::string_view password = fields[1];
    const std::uint64_t leastDays = NumberOf(fields[3]).value_or(0);
    const std::uint64_t mostDays = NumberOf(fields[4]).value_or(never);
    const std::optional<std::uint64_t> expiry = NumberOf(fields[7]);
    PasswordEntry entry;
    entry.isRequired = !password.empty();
    entry.opensNothing = password.starts_with('!') || password.starts_with('*');
    entry.isLocked = password.starts_with('!') && password.find_first_not_of("!*") != std::string_view::npos;
    entry.expires = mostDays < never;
    entry.mayBeChanged = leastDays <= mostDays;
    if (expiry) entry.accountExpiry = static_cast<std::int64_t>(*expiry);
    return entry;
}

std::optional<bool> DisabledIn(const UserRow& row) {
    return row.password ? std::optional(IsDisabled(row.user, *row.password, row.today)) : std::nullopt;
}

std::u16string_view StatusOf(const UserRow& row) { return DisabledIn(row).value_or(false) ? u"Degraded" : u"OK"; }

/// One of the facts of a password.
std::optional<bool> FactOf(const UserRow& row, bool PasswordEntry::*fact) {
    return row.password ? std::optional((*row.password).*fact) : std::nullopt;
}

/// The name with the computer's in front.
std::u16string FullNameOf(const std::u16string& host, const std::string& name) {
    return host + u"\\" + WideFromUtf8(name);
}

constexpr auto userCaption = [](const UserRow& row) { return FullNameOf(row.host, row.user.name); };
constexpr auto groupCaption = [](const GroupRow& row) { return FullNameOf(row.host, row.group.name); };

// clang-format off
constexpr PropertyInfo userProperties[] = {
    {u"AccountType", uint32, 0, "512: a normal account", [](const UserRow&) { return 512; }},
    {u"Caption", string, Need::host, "computer\\name", userCaption},
    {u"Description", string, 0, "as FullName", [](const UserRow& row) { return row.user.fullName; }},
    {u"Disabled", boolean, Need::password, "it has expired, or has neither a password nor a shell", [](const UserRow& row) { return DisabledIn(row); }},
    {u"Domain", string, Need::host, "the computer's name", [](const UserRow& row) { return row.host; }},
    {u"FullName", string, 0, "of GECOS", [](const UserRow& row) { return row.user.fullName; }},
    {u"InstallDate", datetime},
    {u"LocalAccount", boolean, 0, "all that are read", [](const UserRow&) { return true; }},
    {u"Lockout", boolean, Need::password, "its password was put out of use", [](const UserRow& row) { return FactOf(row, &PasswordEntry::isLocked); }},
    {u"Name", string, 0, "as the file has it", [](const UserRow& row) { return row.user.name; }},
    {u"PasswordChangeable", boolean, Need::password, "by its owner", [](const UserRow& row) { return FactOf(row, &PasswordEntry::mayBeChanged); }},
    {u"PasswordExpires", boolean, Need::password, "there is a greatest age", [](const UserRow& row) { return FactOf(row, &PasswordEntry::expires); }},
    {u"PasswordRequired", boolean, Need::password, "the field is not empty", [](const UserRow& row) { return FactOf(row, &PasswordEntry::isRequired); }},
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

WmiStatus GatherUsers(const Gathering& gathering) {
    std::map<std::string, PasswordEntry> passwords;
    if (gathering.asksFor(Need::password)) passwords = ParseShadow(ReadSystemFile("/etc/shadow").value_or(""));
    UserRow row;
    row.today = Today();
    if (gathering.asksFor(Need::host)) row.host = HostName();
    for (UserEntry& user : ParsePasswd(ReadSystemFile("/etc/passwd").value_or(""))) {
        const auto password = passwords.find(user.name);
        row.password = password == passwords.end() ? std::nullopt : std::optional(password->second);
        row.user = std::move(user);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherGroups(const Gathering& gathering) {
    GroupRow row;
    if (gathering.asksFor(Need::host)) row.host = HostName();
    for (GroupEntry& group : ParseGroups(ReadSystemFile("/etc/group").value_or(""))) {
        row.group = std::move(group);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_UserAccount", u"Win32_Account", userProperties, GatherUsers},
    {u"Win32_Group", u"Win32_Account", groupProperties, GatherGroups},
};

}  // namespace

std::vector<UserEntry> ParsePasswd(std::string_view text) {
    constexpr std::size_t fieldCount = 7;
    std::vector<UserEntry> users;
    for (std::string_view line; TakeLine(text, line);) {
        const std::vector<std::string_view> fields = FieldsOf(Trimmed(line));
        if (fields.size() != fieldCount || fields[0].empty()) continue;
        const std::optional<std::uint32_t> id = IdOf(fields[2]);
        const std::string_view gecos = fields[4];
        if (!id) continue;
        users.push_back(
            {std::string(fields[0]), *id, std::string(gecos.substr(0, gecos.find(','))), std::string(fields[6])});
    }
    return users;
}

std::vector<GroupEntry> ParseGroups(std::string_view text) {
    constexpr std::size_t fieldCount = 4;
    std::vector<GroupEntry> groups;
    for (std::string_view line; TakeLine(text, line);) {
        const std::vector<std::string_view> fields = FieldsOf(Trimmed(line));
        if (fields.size() != fieldCount || fields[0].empty()) continue;
        const std::optional<std::uint32_t> id = IdOf(fields[2]);
        if (id) groups.push_back({std::string(fields[0]), *id});
    }
    return groups;
}

std::map<std::string, PasswordEntry> ParseShadow(std::string_view text) {
    constexpr std::size_t fieldCount = 9;
    std::map<std::string, PasswordEntry> entries;
    for (std::string_view line; TakeLine(text, line);) {
        const std::vector<std::string_view> fields = FieldsOf(Trimmed(line));
        if (fields.size() == fieldCount) entries.emplace(fields[0], PasswordOf(fields));
    }
    return entries;
}

bool IsDisabled(const UserEntry& user, const PasswordEntry& password, std::int64_t daysSince1970) {
    const bool hasShell = !user.shell.ends_with("/nologin") && !user.shell.ends_with("/false");
    const bool hasExpired = password.accountExpiry && *password.accountExpiry <= daysSince1970;
    return hasExpired || (password.opensNothing && !hasShell);
}

std::span<const ClassInfo> AccountClasses() { return classes; }

}  // namespace platform::wmi
