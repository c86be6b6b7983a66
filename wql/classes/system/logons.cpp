#include "wql/classes/system/logons.h"

#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/object_path.h"

namespace kv::wql {

namespace {

using enum CimType;
using facts::Session;

struct UserRow {
    std::u16string account;  // paths
    std::u16string session;
};

/// "pts/0 from 192.0.2.1"
CimValue PlaceOf(const Session& session) {
    return facts::KnownText(session.host.empty() ? session.line : session.line + " from " + session.host);
}

CimValue StartOf(const Session& session) { return session.start ? CimValue(DmtfTime(*session.start)) : CimValue(); }

// clang-format off
constexpr PropertyInfo sessionProperties[] = {
    {u"AuthenticationPackage", string, 0, "the service of PAM that let the user in, such as sshd; NULL if only utmp tells of the session",
        [](const Session& session) { return facts::KnownText(session.service); }},
    {u"Caption", string, 0, "the terminal, and the host from which a remote session came", [](const Session& session) { return PlaceOf(session); }},
    {u"Description", string, 0, "as Caption", [](const Session& session) { return PlaceOf(session); }},
    {u"InstallDate", datetime},
    {u"LogonId", string, 0, "of systemd's login manager, or else the terminal", [](const Session& session) { return session.id; }},
    {u"LogonType", uint32, 0, "2 interactive, 10 remote; 4 of cron and the like, 5 a user's service manager",
        [](const Session& session) { return static_cast<std::uint32_t>(session.kind); }},
    {u"Name", string},
    {u"StartTime", datetime, 0, "when it began", [](const Session& session) { return StartOf(session); }},
    {u"Status", string},
};

constexpr PropertyInfo userProperties[] = {
    {u"Antecedent", reference, 0, "Win32_UserAccount: whose session it is", [](const UserRow& row) { return row.account; }},
    {u"Dependent", reference, 0, "Win32_LogonSession: the session", [](const UserRow& row) { return row.session; }},
};
// clang-format on

using GatherSessions = WmiStatus (*)(const Gathering& gathering, const std::vector<Session>& sessions);

/// A system that records no sessions has none.
WmiStatus GatherOfThisComputer(const Gathering& gathering, GatherSessions gather) {
    const facts::RecordedSessions recorded = facts::ReadLogons();
    if (recorded.failure == 0) return gather(gathering, recorded.sessions);
    gathering.notice(FailureText(recorded));
    return StatusOfFailure(recorded.failure);
}

constexpr ClassInfo classes[] = {
    {u"Win32_LogonSession", u"Win32_Session", sessionProperties,
     [](const Gathering& gathering) { return GatherOfThisComputer(gathering, GatherLogonSessions); }, u"LogonId",
     "sessions of users"},
    {u"Win32_LoggedOnUser", u"CIM_Dependency", userProperties,
     [](const Gathering& gathering) { return GatherOfThisComputer(gathering, GatherLoggedOnUsers); },
     u"Antecedent,Dependent", "which account each session is of"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherLogonSessions(const Gathering& gathering, const std::vector<Session>& sessions) {
    for (const Session& session : sessions) {
        if (!gathering.row(&session)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherLoggedOnUsers(const Gathering& gathering, const std::vector<Session>& sessions) {
    const std::u16string host = facts::HostName();
    for (const Session& session : sessions) {
        const UserRow row{.account = ObjectPath(u"Win32_UserAccount", {{u"Domain", host}, {u"Name", session.user}}),
                          .session = ObjectPath(u"Win32_LogonSession", {{u"LogonId", session.id}})};
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
