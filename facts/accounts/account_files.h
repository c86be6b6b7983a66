// Local users and groups from the text of passwd(5), group(5) and shadow(5), as the C library reads them. Those of a
// directory service are left out: it may not answer.
//
// What counts as an account is what the C library takes for one, because then it can log in: also a line that lacks
// fields at its end, or has too many. Comments, lines without a name or with a number that is not one are left out, as
// in every other program; the lines after them are read. Lines may have any length. Any thread may parse. The parsers
// throw std::system_error as OpenText does.
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
    std::string fullName;        // the GECOS field up to its first comma
    std::string shell;           // a path; empty means /bin/sh
    std::string password = "x";  // "x": it stands in /etc/shadow
};

/// Of lines for one name the first counts.
std::vector<UserEntry> ParsePasswd(std::string_view text);

/// The names and numbers in /etc/passwd when it was made. Users of a directory service, which may not answer, are not
/// among them.
class LocalUsers {
  public:
    LocalUsers();

    /// False if the file cannot be read; then no user is known.
    bool areKnown() const { return areKnown_; }

    /// The name of a number, which is decimal; the number itself if it is not a local user's.
    std::string nameOf(const std::string& number) const;
    std::optional<std::uint32_t> numberOf(const std::string& name) const;

  private:
    bool areKnown_ = false;
    std::map<std::string, std::string> names_;
    std::map<std::string, std::uint32_t> numbers_;
};

/// A line of /etc/group.
struct GroupEntry {
    std::string name;
    std::uint32_t id = 0;
};

/// As ParsePasswd.
std::vector<GroupEntry> ParseGroups(std::string_view text);

/// What a line of /etc/shadow says about an account.
struct PasswordEntry {
    bool isRequired = false;    // the password field is not empty
    bool opensNothing = false;  // no password is accepted
    bool isLocked = false;      // there is a password, but it has been disabled
    bool expires = false;
    bool mayBeChanged = true;
    std::optional<std::int64_t> accountExpiry;  // days since 1970; absent: never
    std::optional<std::int64_t> passwordEnd;    // the first such day on which it is too old even to be changed
};

/// By user name. The first of two lines for one user counts.
std::map<std::string, PasswordEntry> ParseShadow(std::string_view text);

/// What is known of a user's password: from the user's line of shadow, else from that of passwd. A password that shadow
/// should have, and has not, opens nothing. Absent if shadow could not be read, and would be needed.
std::optional<PasswordEntry> PasswordOf(const UserEntry& user,
                                        const std::optional<std::map<std::string, PasswordEntry>>& shadow);

/// Whether nobody can use an account: it or its password has expired, or neither a password nor a shell lets anyone in.
/// An account that only lacks a password may still be entered with a key.
bool IsDisabled(const UserEntry& user, const PasswordEntry& password, std::int64_t daysSince1970);

}  // namespace kv::facts
