// The logs of Windows, found again in systemd's journal: Win32_NTLogEvent and Win32_NTEventlogFile.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "facts/logs/journal.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// Which log an entry is in, by its facility: auth and authpriv are Security; kern, daemon, cron and syslog, and what
/// systemd itself says, are System; all others are Application.
enum class EventLog { application, security, system };

inline constexpr std::array eventLogs{EventLog::application, EventLog::security, EventLog::system};

std::u16string_view NameOf(EventLog log);
EventLog LogOf(const facts::JournalEntry& entry);

/// What the entries of a log match. Empty for Application, whose entries match nothing that others do not.
std::vector<facts::JournalMatches> MatchesOf(EventLog log);

/// Entries of a query that WHERE does not bound from below by RecordNumber, TimeGenerated or TimeWritten: the newest of
/// those that have its Logfile, EventType and Type. Without it one careless query would read gigabytes.
inline constexpr std::size_t maxUnboundedEntries = 1000;

/// What the entries that one query keeps take at most, in bytes: some fifty thousand, newest first. The record that the
/// rows go into is of the same order.
inline constexpr std::size_t maxEventBytes = 32U << 20;

/// How long a query reads in the journal: less than the thirty seconds after which a query is given up as stuck.
inline constexpr std::chrono::milliseconds longestEventReading{20000};

/// Gathers the entries of the journal in the folders. accessDenied if none of its files may be read, providerFailure if
/// there is none or none can be read; a notice if some cannot, or if entries were left out.
WmiStatus GatherEvents(const Gathering& gathering, const std::vector<std::string>& folders,
                       std::chrono::milliseconds longest = longestEventReading);

/// Says in a notice what could not be read of a journal. The status if that is all of it.
WmiStatus TellJournalLosses(const facts::JournalReading& reading, const Gathering& gathering);

}  // namespace kv::wql
