#include "facts/accounts/account_files.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <set>
#include <shadow.h>

#include "facts/system_text.h"
#include "facts/text_file.h"

namespace kv::facts {

namespace {

constexpr long noDays = -1;  // how the C library gives an empty field of shadow

/// The type of fgetpwent_r, fgetgrent_r and fgetspent_r.
template <class Record>
using NextEntry = int (*)(std::FILE* file, Record* record, char* buffer, std::size_t size, Record** found);

/// Hands out the entries of a text one by one. The C library skips lines that it cannot parse. If an entry does not fit
/// into the buffer, it goes back to the start of the line, so that a larger buffer gets the whole entry.
template <class Record, class Use>
void ForEachEntry(std::string_view text, NextEntry<Record> next, const Use& use) {
    const File file = OpenText(text);
    constexpr std::size_t usualEntry = 1024;
    std::string buffer(usualEntry, '\0');
    Record record{};
    Record* found = nullptr;
    while (true) {
        const int failure = next(file.get(), &record, buffer.data(), buffer.size(), &found);
        if (failure == ERANGE) {
            buffer.resize(buffer.size() * 2);
        } else if (failure == 0 && found != nullptr) {
            use(record);
        } else {
            return;
        }
    }
}

/// "+" and "-" entries include or exclude users of a directory service. They are not users, and their other fields may
/// be null.
bool IsLocal(std::string_view name) { return !name.empty() && name[0] != '+' && name[0] != '-'; }

PasswordEntry PasswordFacts(std::string_view password) {
    PasswordEntry entry;
    entry.isRequired = !password.empty();
    entry.opensNothing = password.starts_with('!') || password.starts_with('*');
    entry.isLocked = password.starts_with('!') && password.find_first_not_of("!*") != std::string_view::npos;
    return entry;
}

/// The first day on which a password is too old to let its owner in; absent if that day never comes.
std::optional<std::int64_t> EndOfPassword(const spwd& shadow) {
    constexpr long lastDay = 10'000'000;             // sums of such days fit into a long; the year is 29000
    if (shadow.sp_lstchg == 0) return std::nullopt;  // it must be changed at the next login
    std::int64_t day = 1;
    for (const long days : {shadow.sp_lstchg, shadow.sp_max, shadow.sp_inact}) {
        if (days < 0 || days > lastDay) return std::nullopt;
        day += days;
    }
    return day;
}

PasswordEntry ShadowFacts(const spwd& shadow) {
    constexpr long never = 99999;  // as useradd writes it
    const long leastDays = shadow.sp_min == noDays ? 0 : shadow.sp_min;
    const long mostDays = shadow.sp_max == noDays ? never : shadow.sp_max;
    PasswordEntry entry = PasswordFacts(shadow.sp_pwdp);
    entry.expires = mostDays < never;
    entry.mayBeChanged = leastDays <= mostDays;
    if (shadow.sp_expire != noDays) entry.accountExpiry = shadow.sp_expire;
    entry.passwordEnd = EndOfPassword(shadow);
    return entry;
}

}  // namespace

std::vector<UserEntry> ParsePasswd(std::string_view text) {
    std::vector<UserEntry> users;
    std::set<std::string> names;
    ForEachEntry<passwd>(text, fgetpwent_r, [&](const passwd& entry) {
        if (!IsLocal(entry.pw_name) || !names.insert(entry.pw_name).second) return;
        const std::string_view gecos = entry.pw_gecos;
        users.push_back({entry.pw_name, entry.pw_uid, std::string(gecos.substr(0, gecos.find(','))), entry.pw_shell,
                         entry.pw_passwd});
    });
    return users;
}

LocalUsers::LocalUsers() {
    const std::optional<std::string> text = platform::ReadSystemFile("/etc/passwd");
    areKnown_ = text.has_value();
    for (const UserEntry& user : ParsePasswd(text.value_or(""))) {
        names_.emplace(std::to_string(user.id), user.name);
        numbers_.emplace(user.name, user.id);
    }
}

std::string LocalUsers::nameOf(const std::string& number) const {
    const auto found = names_.find(number);
    return found != names_.end() ? found->second : number;
}

std::optional<std::uint32_t> LocalUsers::numberOf(const std::string& name) const {
    const auto found = numbers_.find(name);
    return found != numbers_.end() ? std::optional(found->second) : std::nullopt;
}

std::vector<GroupEntry> ParseGroups(std::string_view text) {
    std::vector<GroupEntry> groups;
    std::set<std::string> names;
    ForEachEntry<group>(text, fgetgrent_r, [&](const group& entry) {
        if (IsLocal(entry.gr_name) && names.insert(entry.gr_name).second)
            groups.push_back({entry.gr_name, entry.gr_gid});
    });
    return groups;
}

std::map<std::string, PasswordEntry> ParseShadow(std::string_view text) {
    std::map<std::string, PasswordEntry> entries;
    ForEachEntry<spwd>(text, fgetspent_r, [&](const spwd& entry) {
        if (IsLocal(entry.sp_namp)) entries.emplace(entry.sp_namp, ShadowFacts(entry));
    });
    return entries;
}

std::optional<PasswordEntry> PasswordOf(const UserEntry& user,
                                        const std::optional<std::map<std::string, PasswordEntry>>& shadow) {
    const bool isInShadow = user.password == "x";
    if (!shadow) return isInShadow ? std::nullopt : std::optional(PasswordFacts(user.password));
    if (const auto line = shadow->find(user.name); line != shadow->end()) return line->second;
    return PasswordFacts(isInShadow ? "*" : user.password);
}

bool IsDisabled(const UserEntry& user, const PasswordEntry& password, std::int64_t daysSince1970) {
    const bool hasShell = !user.shell.ends_with("/nologin") && !user.shell.ends_with("/false");
    const bool hasExpired = (password.accountExpiry && *password.accountExpiry <= daysSince1970) ||
                            (password.passwordEnd && *password.passwordEnd <= daysSince1970);
    return hasExpired || (password.opensNothing && !hasShell);
}

}  // namespace kv::facts
