#include "facts/accounts/sessions.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <system_error>
#include <systemd/sd-login.h>
#include <unistd.h>
#include <utmp.h>

#include "facts/accounts/account_files.h"
#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

template <std::size_t Size>
std::string UtmpText(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

constexpr const char* sessionFolder = "/run/systemd/sessions";

using OwnedText = std::unique_ptr<char, platform::ReleasedBy<std::free>>;

/// What a routine of sd-login says about a session; empty when it says nothing.
std::string SessionText(const char* session, int (*ask)(const char*, char**)) {
    char* text = nullptr;
    if (ask(session, &text) < 0) return {};
    const OwnedText owned(text);
    return text;
}

/// A line of the login manager's file of a session. sd-login tells most of what stands there, but before its version
/// 254 neither the user's name nor the start.
std::string LineOf(std::string_view file, std::string_view key) {
    std::string_view line;
    while (TakeLine(file, line)) {
        if (line.starts_with(key)) return std::string(line.substr(key.size()));
    }
    return {};
}

/// Absent for a session that does not belong to a user, and for one that has ended but still has programs running.
std::optional<Session> ReadSession(const char* id) {
    uid_t user = 0;
    const std::optional<LogonKind> kind =
        LogonKindOf(SessionText(id, sd_session_get_class), sd_session_is_remote(id) > 0);
    if (!kind || SessionText(id, sd_session_get_state) == "closing" || sd_session_get_uid(id, &user) < 0) return {};
    const std::string file = platform::ReadSystemFile(std::string(sessionFolder) + "/" + id).value_or("");
    Session session;
    session.user = LineOf(file, "USER=");
    if (session.user.empty()) session.user = LocalUsers().nameOf(std::to_string(user));
    session.line = SessionText(id, sd_session_get_tty);
    if (session.line.empty()) session.line = SessionText(id, sd_session_get_display);
    session.id = id;
    session.kind = *kind;
    session.host = SessionText(id, sd_session_get_remote_host);
    session.service = SessionText(id, sd_session_get_service);
    const std::optional<std::uint64_t> start = NumberOf(LineOf(file, "REALTIME="));
    if (start) session.start = static_cast<std::int64_t>(*start);
    return session;
}

/// The sessions in the files of systemd's login manager. They are not recorded when it does not run.
RecordedSessions ReadManagedSessions() {
    RecordedSessions recorded;
    char** ids = nullptr;
    if (access(sessionFolder, F_OK) != 0) {
        if (errno != ENOENT) recorded.failure = errno;
        return recorded;
    }
    if (const int result = sd_get_sessions(&ids); result < 0) {
        recorded.failure = -result;
        return recorded;
    }
    recorded.areRecorded = true;
    const std::unique_ptr<char*, platform::ReleasedBy<std::free>> owned(ids);
    for (; ids != nullptr && *ids != nullptr; ++ids) {
        const OwnedText id(*ids);
        if (std::optional<Session> session = ReadSession(id.get())) recorded.sessions.push_back(std::move(*session));
    }
    return recorded;
}

/// As who(1) finds it out: a number that cannot be a process's says nothing.
bool HasEnded(pid_t process) { return process > 0 && kill(process, 0) != 0 && errno == ESRCH; }

/// False in a namespace of processes, where those of sessions elsewhere seem to have ended.
bool SeesAllProcesses() {
    std::error_code failure;
    return std::filesystem::read_symlink("/proc/self/ns/pid", failure) == "pid:[4026531836]";  // the kernel's first
}

std::vector<Session> SessionsOfUtmp(std::string_view utmp) {
    std::vector<Session> sessions = ParseSessions(utmp, HasEnded);
    if (sessions.empty() && !SeesAllProcesses()) sessions = ParseSessions(utmp, [](pid_t) { return false; });
    return sessions;
}

}  // namespace

std::optional<LogonKind> LogonKindOf(std::string_view sessionClass, bool isRemote) {
    if (sessionClass.starts_with("user")) return isRemote ? LogonKind::remote : LogonKind::interactive;
    if (sessionClass.starts_with("background")) return LogonKind::batch;
    if (sessionClass.starts_with("manager")) return LogonKind::service;
    return std::nullopt;
}

std::vector<Session> ParseSessions(std::string_view utmp, bool (*hasEnded)(pid_t process)) {
    constexpr std::int64_t microseconds = 1'000'000;
    std::vector<Session> sessions;
    std::map<std::string, std::size_t> places;  // of the sessions, by terminal
    for (; utmp.size() >= sizeof(struct utmp); utmp.remove_prefix(sizeof(struct utmp))) {
        struct utmp record {};
        std::memcpy(&record, utmp.data(), sizeof record);
        if (record.ut_type != USER_PROCESS || hasEnded(record.ut_pid)) continue;
        Session session;
        session.user = UtmpText(record.ut_user);
        session.line = session.id = UtmpText(record.ut_line);
        session.start = record.ut_tv.tv_sec * microseconds + record.ut_tv.tv_usec;
        // Terminals within a session have a screen or a program there, such as ":0" or "tmux(7).%0".
        const std::string host = UtmpText(record.ut_host);
        if (!host.empty() && !host.starts_with(':') && !host.starts_with("tmux(")) {
            session.kind = LogonKind::remote;
            session.host = host;
        }
        const auto [place, isNew] = places.try_emplace(session.line, sessions.size());
        if (isNew) {
            sessions.push_back(std::move(session));
        } else if (*session.start >= *sessions[place->second].start) {
            sessions[place->second] = std::move(session);
        }
    }
    return sessions;
}

RecordedSessions ReadLogons() {
    RecordedSessions managed = ReadManagedSessions();
    if (!managed.sessions.empty()) return managed;
    const std::optional<std::string> file = platform::ReadSystemFile(_PATH_UTMP);
    const int failure = errno;
    if (file) return {.sessions = SessionsOfUtmp(*file), .areRecorded = true};
    if (!managed.areRecorded && managed.failure == 0 && failure != ENOENT) managed.failure = failure;
    return managed;
}

RecordedSessions ReadSessions() {
    RecordedSessions recorded = ReadLogons();
    std::erase_if(recorded.sessions, [](const Session& session) {
        return session.kind != LogonKind::interactive && session.kind != LogonKind::remote;
    });
    return recorded;
}

std::string FailureText(const RecordedSessions& recorded) {
    return "Sessions cannot be read: " + std::generic_category().message(recorded.failure);
}

std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions) {
    for (const Session& session : sessions) {
        if (session.line.starts_with("tty") || session.line.starts_with(':')) return session.user;
    }
    return std::nullopt;
}

}  // namespace kv::facts
