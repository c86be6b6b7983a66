// Who is logged in, of utmp(5), or of systemd's login manager where the system keeps no such file.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// A user's session.
struct Session {
    std::string user;
    std::string line;  // the terminal, such as "tty1", "pts/0" or ":0"
};

/// Those of a utmp file; a part of a record at its end is left out.
std::vector<Session> ParseSessions(std::string_view utmp);

/// The sessions; none where the system keeps no account of them.
std::optional<std::vector<Session>> ReadSessions();

/// The user at the computer's own screen and keyboard; none when nobody is.
std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions);

}  // namespace kv::facts
