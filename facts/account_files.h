// Local users and groups, of the files of passwd(5), group(5) and shadow(5). Those of a directory service are left out:
// it may not answer.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// A line of /etc/passwd.
struct UserEntry {
    std::string name;
    std::uint32_t id = 0;
    std::string fullName;  // what GECOS holds up to its first comma
    std::string shell;     // a path
};

/// Lines without a name, a number or one of the seven fields are left out.
std::vector<UserEntry> ParsePasswd(std::string_view text);

/// A line of /etc/group.
struct GroupEntry {
    std::string name;
    std::uint32_t id = 0;
};

std::vector<GroupEntry> ParseGroups(std::string_view text);

/// What a line of /etc/shadow tells of an account.
struct PasswordEntry {
    bool isRequired = false;    // there is a password, or one that nothing matches
    bool opensNothing = false;  // no password is taken
    bool isLocked = false;      // there is one, but it has been put out of use
    bool expires = false;
    bool mayBeChanged = true;
    std::optional<std::int64_t> accountExpiry;  // days since 1970
};

/// By the users' names.
std::map<std::string, PasswordEntry> ParseShadow(std::string_view text);

/// Whether nobody can use an account: it has expired, or neither a password nor a shell is open to anyone. Without a
/// password alone its owner may still log in by a key.
bool IsDisabled(const UserEntry& user, const PasswordEntry& password, std::int64_t daysSince1970);

}  // namespace kv::facts
