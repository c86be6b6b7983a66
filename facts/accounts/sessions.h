// Who is logged in: from systemd's login manager, or from utmp(5) if that knows of nobody.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace kv::facts {

/// How somebody, or something, came in. The numbers are those of Windows' LogonType.
enum class LogonKind : std::uint32_t {
    interactive = 2,  // at a terminal or screen of this computer
    batch = 4,        // work that cron or the like does for a user
    service = 5,      // a user's own service manager
    remote = 10,
};

/// A user's session.
struct Session {
    std::string user;
    std::string line;  // the terminal, such as "tty1", "pts/0" or ":0"
    std::string id;    // tells it from others: the login manager's, or the terminal
    LogonKind kind = LogonKind::interactive;
    std::string host;                     // from which a remote one came; empty if that is not known
    std::string service;                  // of PAM, such as "sshd"; empty if that is not known
    std::optional<std::int64_t> start{};  // microseconds since 1970
};

/// How a session is used, by the words of the login manager. Absent for one that is not a user's, such as that of a
/// login screen.
std::optional<LogonKind> LogonKindOf(std::string_view sessionClass, bool isRemote);

/// The sessions in a utmp file; of those at one terminal, the one that began last. Those whose process has ended are
/// left out, and so is an incomplete record at the end.
std::vector<Session> ParseSessions(std::string_view utmp, bool (*hasEnded)(pid_t process));

struct RecordedSessions {
    std::vector<Session> sessions;
    bool areRecorded = false;  // false: the system does not record them, or its records cannot be read
    int failure = 0;           // why they cannot be read, an errno value
};

/// The sessions of all kinds.
RecordedSessions ReadLogons();

/// The sessions in which somebody is logged in.
RecordedSessions ReadSessions();

/// What is said when they cannot be read: "Sessions cannot be read: Permission denied".
std::string FailureText(const RecordedSessions& recorded);

/// The user at the computer's own screen and keyboard; absent when nobody is logged in there.
std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions);

}  // namespace kv::facts
