// Who is logged in: from utmp(5), or from systemd's login manager if the system does not keep that file.
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

/// The sessions in a utmp file. An incomplete record at its end is left out.
std::vector<Session> ParseSessions(std::string_view utmp);

/// The sessions; absent when the system does not record them.
std::optional<std::vector<Session>> ReadSessions();

/// The user at the computer's own screen and keyboard; absent when nobody is logged in there.
std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions);

}  // namespace kv::facts
