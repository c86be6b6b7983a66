#include "facts/sessions.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <systemd/sd-login.h>
#include <unistd.h>
#include <utmp.h>

#include "facts/account_files.h"
#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

template <std::size_t Size>
std::string UtmpText(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

using OwnedText = std::unique_ptr<char, platform::ReleasedBy<std::free>>;

/// What a routine of sd-login says about a session; empty when it says nothing.
std::string SessionText(const char* session, int (*ask)(const char*, char**)) {
    char* text = nullptr;
    if (ask(session, &text) < 0) return {};
    const OwnedText owned(text);
    return text;
}

std::string NameOfUser(std::uint32_t id) {
    for (UserEntry& user : ParsePasswd(platform::ReadSystemFile("/etc/passwd").value_or(""))) {
        if (user.id == id) return std::move(user.name);
    }
    return fmt::format("{}", id);  // a user of a directory service, which may not answer
}

/// Absent for a session that does not belong to a user, such as that of a login screen, and for one that has ended but
/// still has programs running.
std::optional<Session> ReadSession(const char* id) {
    uid_t user = 0;
    const bool isOfUser = SessionText(id, sd_session_get_class).starts_with("user");
    if (!isOfUser || SessionText(id, sd_session_get_state) == "closing" || sd_session_get_uid(id, &user) < 0) return {};
    const std::string terminal = SessionText(id, sd_session_get_tty);
    return Session{NameOfUser(user), terminal.empty() ? SessionText(id, sd_session_get_display) : terminal};
}

/// The sessions in the files of systemd's login manager; absent when it does not run.
std::optional<std::vector<Session>> ReadManagedSessions() {
    char** ids = nullptr;
    if (access("/run/systemd/sessions", F_OK) != 0 || sd_get_sessions(&ids) < 0) return std::nullopt;
    const std::unique_ptr<char*, platform::ReleasedBy<std::free>> owned(ids);
    std::vector<Session> sessions;
    for (; ids != nullptr && *ids != nullptr; ++ids) {
        const OwnedText id(*ids);
        if (std::optional<Session> session = ReadSession(id.get())) sessions.push_back(std::move(*session));
    }
    return sessions;
}

}  // namespace

std::vector<Session> ParseSessions(std::string_view utmp) {
    std::vector<Session> sessions;
    for (; utmp.size() >= sizeof(struct utmp); utmp.remove_prefix(sizeof(struct utmp))) {
        struct utmp record {};
        std::memcpy(&record, utmp.data(), sizeof record);
        if (record.ut_type == USER_PROCESS) sessions.push_back({UtmpText(record.ut_user), UtmpText(record.ut_line)});
    }
    return sessions;
}

std::optional<std::vector<Session>> ReadSessions() {
    const std::optional<std::string> file = platform::ReadSystemFile(_PATH_UTMP);
    return file ? std::optional(ParseSessions(*file)) : ReadManagedSessions();
}

std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions) {
    for (const Session& session : sessions) {
        if (session.line.starts_with("tty") || session.line.starts_with(':')) return session.user;
    }
    return std::nullopt;
}

}  // namespace kv::facts
