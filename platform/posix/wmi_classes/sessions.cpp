#include "platform/posix/wmi_classes/sessions.h"

#include <cstring>
#include <utmp.h>

#include "platform/posix/wmi/system_text.h"

namespace platform::wmi {

namespace {

template <std::size_t Size>
std::string TextOf(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

}  // namespace

std::vector<Session> ParseSessions(std::string_view utmp) {
    std::vector<Session> sessions;
    for (; utmp.size() >= sizeof(struct utmp); utmp.remove_prefix(sizeof(struct utmp))) {
        struct utmp record {};
        std::memcpy(&record, utmp.data(), sizeof record);
        if (record.ut_type == USER_PROCESS) sessions.push_back({TextOf(record.ut_user), TextOf(record.ut_line)});
    }
    return sessions;
}

std::optional<std::vector<Session>> ReadSessions() {
    const std::optional<std::string> file = ReadSystemFile(_PATH_UTMP);
    return file ? std::optional(ParseSessions(*file)) : std::nullopt;
}

std::optional<std::string> ConsoleUserOf(const std::vector<Session>& sessions) {
    for (const Session& session : sessions) {
        if (session.line.starts_with("tty") || session.line.starts_with(':')) return session.user;
    }
    return std::nullopt;
}

}  // namespace platform::wmi
