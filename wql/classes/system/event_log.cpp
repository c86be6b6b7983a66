// Win32_NTLogEvent: the entries of systemd's journal.
#include "wql/classes/system/event_log.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <iterator>

#include "facts/accounts/account_files.h"
#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "platform/utf.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;
using facts::JournalEntry;
using facts::JournalMatches;

struct Need {
    enum Bits : std::uint32_t { host = 1, user = 2 };
};

struct Row {
    JournalEntry entry;
    std::u16string host;
    std::u16string user;
};

/// By syslog's priorities. Windows's numbers for audits, 4 and 5, do not come: the journal does not say whether what
/// was tried has succeeded.
enum EventType { error = 1, warning = 2, information = 3 };
constexpr std::array eventTypes{error, warning, information};

EventType TypeOf(const JournalEntry& entry) {
    const std::uint64_t priority = entry.priority.value_or(6);
    return priority <= 3 ? error : priority == 4 ? warning : information;
}

std::u16string_view WordOf(EventType type) {
    return type == error ? u"Error" : type == warning ? u"Warning" : u"Information";
}

/// A zero would end the text for whoever reads it.
std::u16string TextOf(const std::string& bytes) {
    std::u16string text = platform::WideFromUtf8(bytes);
    std::replace(text.begin(), text.end(), u'\0', u'\uFFFD');
    return text;
}

std::optional<std::u16string> KnownTextOf(const std::string& bytes) {
    return bytes.empty() ? std::nullopt : std::optional(TextOf(bytes));
}

std::optional<std::u16string> SourceOf(const JournalEntry& entry) {
    return KnownTextOf(entry.identifier.empty() ? entry.command : entry.identifier);
}

std::uint32_t IdentifierOf(const JournalEntry& entry) {
    const std::string_view id = entry.messageId;
    return id.size() == 32 ? static_cast<std::uint32_t>(facts::HexNumberOf(id.substr(0, 8)).value_or(0)) : 0;
}

std::u16string GeneratedIn(const Row& row) { return DmtfTime(row.entry.generated.value_or(row.entry.written)); }

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Category", uint16, 0, "0: none", [](const Row&) { return 0; }},
    {u"CategoryString", string},
    {u"ComputerName", string, Need::host, "_HOSTNAME",
        [](const Row& row) { return row.entry.hostName.empty() ? row.host : TextOf(row.entry.hostName); }},
    {u"Data", ArrayOf(uint8)},
    {u"EventCode", uint16, 0, "the lower 16 bits of EventIdentifier", [](const Row& row) { return IdentifierOf(row.entry) & 0xFFFF; }},
    {u"EventIdentifier", uint32, 0, "the first eight digits of MESSAGE_ID; 0 without one", [](const Row& row) { return IdentifierOf(row.entry); }},
    {u"EventType", uint8, 0, "by PRIORITY: 1 to 3 (error) and above, 2 for 4 (warning), else 3", [](const Row& row) { return static_cast<int>(TypeOf(row.entry)); }},
    {u"InsertionStrings", ArrayOf(string), 0, "one, the message", [](const Row& row) { return ListOf(std::vector{TextOf(row.entry.message)}); }},
    {u"Logfile", string, 0, "System, Application or Security, by SYSLOG_FACILITY", [](const Row& row) { return NameOf(LogOf(row.entry)); }},
    {u"Message", string, 0, "MESSAGE, of a longer one the first 32768 bytes", [](const Row& row) { return TextOf(row.entry.message); }},
    {u"RecordNumber", uint32, 0, "the journal's sequence number, its lower 32 bits", [](const Row& row) { return row.entry.number; }},
    {u"SourceName", string, 0, "SYSLOG_IDENTIFIER, else _COMM", [](const Row& row) { return SourceOf(row.entry); }},
    {u"TimeGenerated", datetime, 0, "_SOURCE_REALTIME_TIMESTAMP, else as TimeWritten", [](const Row& row) { return GeneratedIn(row); }},
    {u"TimeWritten", datetime, 0, "when the journal took it", [](const Row& row) { return DmtfTime(row.entry.written); }},
    {u"Type", string, 0, "EventType in words", [](const Row& row) { return WordOf(TypeOf(row.entry)); }},
    {u"User", string, Need::host | Need::user, "computer\\name, by _UID", [](const Row& row) { return row.user.empty() ? CimValue() : CimValue(row.user); }},
};
// clang-format on

/// Whether a property may have a value.
bool MayBe(const Leeway& way, std::u16string_view property, const CimValue& value) {
    const std::vector<CimValue>* values = way.valuesOf(property);
    const auto isSame = [&value](const CimValue& one) { return CompareValues(one, value) == 0; };
    if (values != nullptr && std::none_of(values->begin(), values->end(), isSame)) return false;
    const Range range = way.rangeOf(property);
    return !(CompareValues(value, range.lowest) < 0) && !(CompareValues(value, range.highest) > 0);
}

/// What WHERE leaves.
struct Wanted {
    std::vector<EventLog> logs;
    std::vector<EventType> types;
    facts::JournalSelection selection;
    bool isBounded = true;  // from below
};

bool IsAmong(const auto& list, const auto& one) { return std::find(list.begin(), list.end(), one) != list.end(); }

void AddTo(auto& list, const auto& more) {
    std::ranges::copy_if(more, std::back_inserter(list), [&list](const auto& one) { return !IsAmong(list, one); });
}

/// The conditions on PRIORITY for the types. None if entries without a priority are wanted.
JournalMatches PriorityMatches(const std::vector<EventType>& types) {
    JournalMatches matches;
    if (IsAmong(types, information)) return matches;
    for (int priority = 0; priority <= 4; ++priority) {
        if (IsAmong(types, priority == 4 ? warning : error)) matches.push_back(fmt::format("PRIORITY={}", priority));
    }
    return matches;
}

std::vector<JournalMatches> AlternativesOf(const Wanted& wanted) {
    const JournalMatches priorities = PriorityMatches(wanted.types);
    std::vector<JournalMatches> alternatives;
    for (const EventLog log : wanted.logs) {
        if (log == EventLog::application) {
            alternatives.assign(priorities.empty() ? 0 : 1, priorities);
            break;
        }
        for (JournalMatches matches : MatchesOf(log)) {
            matches.insert(matches.end(), priorities.begin(), priorities.end());
            alternatives.push_back(std::move(matches));
        }
    }
    return alternatives;
}

/// An end of a range as a record number.
std::uint32_t NumberAt(const CimValue& end, std::uint32_t otherwise) {
    const CimValue number = BroughtTo(real64, end);
    if (number.isNull()) return otherwise;
    return static_cast<std::uint32_t>(
        std::clamp(std::get<double>(number.held), 0.0, static_cast<double>(std::numeric_limits<std::uint32_t>::max())));
}

std::int64_t MomentAt(const CimValue& end, std::int64_t otherwise) {
    const auto* moment = std::get_if<std::int64_t>(&end.held);
    return moment != nullptr ? std::max<std::int64_t>(*moment, 0) : otherwise;
}

/// How far the time at which an entry was generated may lie from when it was written: before, because the journal was
/// busy or not yet running; after, because the clock was set back in between.
constexpr std::int64_t longestWay = 60'000'000;  // microseconds

/// What one way to match WHERE leaves; no logs if nothing.
Wanted WantedBy(const Leeway& way) {
    Wanted wanted;
    for (const EventType type : eventTypes) {
        if (MayBe(way, u"EventType", static_cast<int>(type)) && MayBe(way, u"Type", WordOf(type)))
            wanted.types.push_back(type);
    }
    for (const EventLog log : eventLogs) {
        if (!wanted.types.empty() && MayBe(way, u"Logfile", NameOf(log))) wanted.logs.push_back(log);
    }
    facts::JournalSelection& selection = wanted.selection;
    const Range numbers = way.rangeOf(u"RecordNumber");
    const Range generated = way.rangeOf(u"TimeGenerated");
    const Range written = way.rangeOf(u"TimeWritten");
    selection.lowestNumber = NumberAt(numbers.lowest, selection.lowestNumber);
    selection.highestNumber = NumberAt(numbers.highest, selection.highestNumber);
    const std::int64_t earliestGenerated = std::max<std::int64_t>(MomentAt(generated.lowest, 0) - longestWay, 0);
    selection.earliest = std::max(earliestGenerated, MomentAt(written.lowest, 0));
    const std::int64_t latestGenerated = MomentAt(generated.highest, selection.latest - longestWay) + longestWay;
    selection.latest = std::min(latestGenerated, MomentAt(written.highest, selection.latest));
    wanted.isBounded = !numbers.lowest.isNull() || !generated.lowest.isNull() || !written.lowest.isNull();
    return wanted;
}

void Widen(Wanted& wanted, const Wanted& other) {
    AddTo(wanted.logs, other.logs);
    AddTo(wanted.types, other.types);
    facts::JournalSelection& selection = wanted.selection;
    selection.lowestNumber = std::min(selection.lowestNumber, other.selection.lowestNumber);
    selection.highestNumber = std::max(selection.highestNumber, other.selection.highestNumber);
    selection.earliest = std::min(selection.earliest, other.selection.earliest);
    selection.latest = std::max(selection.latest, other.selection.latest);
    wanted.isBounded = wanted.isBounded && other.isBounded;
}

/// What all ways to match WHERE leave together; no logs if nothing.
Wanted WantedBy(const Gathering& gathering) {
    Wanted wanted;
    for (const Leeway& way : gathering.alternatives) {
        const Wanted ofWay = WantedBy(way);
        if (wanted.logs.empty()) {
            wanted = ofWay;
        } else if (!ofWay.logs.empty()) {
            Widen(wanted, ofWay);
        }
    }
    wanted.selection.alternatives = AlternativesOf(wanted);
    return wanted;
}

/// Makes rows of the wanted ones among the entries that are read.
class EventTaker {
  public:
    EventTaker(const Gathering& gathering, const Wanted& wanted) : gathering_(gathering), wanted_(wanted) {
        if (gathering.asksFor(Need::host)) row_.host = facts::HostName();
        if (gathering.asksFor(Need::user)) users_.emplace();
        if (users_ && !users_->areKnown())
            gathering.notice("User has numbers in place of names: /etc/passwd cannot be read");
    }

    /// False when no more are wanted.
    bool take(const JournalEntry& entry) {
        if (!IsAmong(wanted_.logs, LogOf(entry)) || !IsAmong(wanted_.types, TypeOf(entry)))
            return gathering_.wantsMore();
        hasMore_ = entries_++ == maxUnboundedEntries && !wanted_.isBounded;
        if (hasMore_) return false;
        row_.entry = entry;
        row_.user.clear();
        if (users_ && !entry.userId.empty())
            row_.user = row_.host + u"\\" + platform::WideFromUtf8(users_->nameOf(entry.userId));
        const std::size_t kept = gathering_.kept;
        const bool isMoreWanted = gathering_.row(&row_);
        constexpr std::size_t bytesBesideMessage = 512;
        if (gathering_.kept > kept) bytes_ += entry.message.size() + bytesBesideMessage;
        return isMoreWanted && bytes_ < maxEventBytes;
    }

    void tellWhatWasLeftOut() const {
        if (hasMore_) {
            gathering_.notice(
                fmt::format("Only the newest {} entries of the journal were read; a lower bound of "
                            "RecordNumber or TimeGenerated in WHERE brings all from there on",
                            maxUnboundedEntries));
        }
        if (bytes_ >= maxEventBytes) {
            gathering_.notice(fmt::format("Entries before record {} were left out: the newer ones are {} MiB already",
                                          row_.entry.number, maxEventBytes >> 20));
        }
    }

  private:
    const Gathering& gathering_;
    const Wanted& wanted_;
    Row row_;
    std::optional<facts::LocalUsers> users_;
    std::size_t entries_ = 0;
    std::size_t bytes_ = 0;
    bool hasMore_ = false;
};

WmiStatus GatherOwnEvents(const Gathering& gathering) { return GatherEvents(gathering, facts::JournalFolders()); }

constexpr ClassInfo classes[] = {
    {u"Win32_NTLogEvent", u"", properties, GatherOwnEvents, u"Logfile,RecordNumber",
     "entries of systemd's journal, the newest first"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

std::u16string_view NameOf(EventLog log) {
    return log == EventLog::system ? u"System" : log == EventLog::security ? u"Security" : u"Application";
}

EventLog LogOf(const JournalEntry& entry) {
    if (entry.identifier == "systemd") return EventLog::system;
    if (!entry.facility) return EventLog::application;
    constexpr std::array<std::uint64_t, 4> ofSystem{0, 3, 5, 9};  // kern, daemon, syslog, cron
    constexpr std::array<std::uint64_t, 2> ofSecurity{4, 10};     // auth, authpriv
    if (IsAmong(ofSystem, *entry.facility)) return EventLog::system;
    return IsAmong(ofSecurity, *entry.facility) ? EventLog::security : EventLog::application;
}

std::vector<JournalMatches> MatchesOf(EventLog log) {
    if (log == EventLog::security) return {{"SYSLOG_FACILITY=4", "SYSLOG_FACILITY=10"}};
    if (log != EventLog::system) return {};
    return {{"SYSLOG_FACILITY=0", "SYSLOG_FACILITY=3", "SYSLOG_FACILITY=5", "SYSLOG_FACILITY=9"},
            {"SYSLOG_IDENTIFIER=systemd"}};
}

WmiStatus TellJournalLosses(const facts::JournalReading& reading, const Gathering& gathering) {
    if (reading.files == 0 && reading.denied + reading.failures == 0) {
        gathering.notice("There is no journal: no file of systemd's in /var/log/journal or /run/log/journal");
        return wmi_status::providerFailure;
    }
    if (reading.denied > 0) {
        gathering.notice(
            fmt::format("{} of {} files of the journal may not be read; only root and the members of "
                        "systemd-journal and adm may read all",
                        reading.denied, std::max(reading.files, reading.denied)));
    }
    if (reading.failures > 0) {
        gathering.notice(fmt::format("Parts of the journal cannot be read, {} in all; the first: {}", reading.failures,
                                     reading.firstFailure));
    }
    if (reading.leftOut > 0) {
        gathering.notice(
            fmt::format("The {} oldest of {} files of the journal were not read: so many must not be open "
                        "at once",
                        reading.leftOut, reading.files));
    }
    if (reading.read > 0 || reading.isOverdue) return wmi_status::ok;
    return reading.denied > 0 ? wmi_status::accessDenied : wmi_status::providerFailure;
}

WmiStatus GatherEvents(const Gathering& gathering, const std::vector<std::string>& folders,
                       std::chrono::milliseconds longest) {
    Wanted wanted = WantedBy(gathering);
    if (wanted.logs.empty()) return wmi_status::ok;
    wanted.selection.limit = std::chrono::steady_clock::now() + longest;
    EventTaker taker(gathering, wanted);
    const facts::JournalReading reading = facts::ReadJournal(
        folders, wanted.selection, [&taker](const JournalEntry& entry) { return taker.take(entry); });
    taker.tellWhatWasLeftOut();
    if (reading.isOverdue) {
        gathering.notice(
            fmt::format("The journal was read for {} seconds, and older entries were left out; a lower "
                        "bound of RecordNumber or TimeGenerated in WHERE makes the query shorter",
                        std::chrono::duration_cast<std::chrono::seconds>(longest).count()));
    }
    return TellJournalLosses(reading, gathering);
}

}  // namespace kv::wql
