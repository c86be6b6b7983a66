#include "facts/account_files.h"

#include "facts/system_text.h"

namespace kv::facts {

namespace {

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

}  // namespace kv::facts
