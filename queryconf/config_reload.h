// A new plan from the server: it is fetched and unpacked into "..\conf\download\", takes the place of the plan in use,
// which becomes the backup, and is scheduled. Everything here runs on the thread that serves requests. The timer thread
// goes on collecting by the old plan until the schedule is built again. Any routine may throw std::bad_alloc.
#pragma once

#include <string_view>

#include "foundation/text.h"

namespace kv {

/// Whether a key from the server is this agent's own, in upper or lower case.
[[nodiscard]] bool IsOwnAgentKey(std::u16string_view key);

/// Whether a key can be that of a slave: it can name a directory on every system, and no file beside a plan has that
/// name.
[[nodiscard]] bool IsSlaveKey(std::u16string_view key);

/// The name of a slave's directory as it stands below "..\conf\slaves\", in whichever case; the key itself when there
/// is no such directory.
std::u16string SlaveDirectoryName(std::u16string_view key);

/// Makes the backup and download directories, downloads the archive at the URL from the server, and unpacks it into the
/// download directory. Everything there but plans and the list of requests is then deleted. An absent URL downloads
/// nothing. A download that fails is logged, and so is an archive for which the disk has no room: the plan in use
/// stays.
void RequestingConfigDetailstoCS(const OptionalText& confFileDldURL);

/// Installs the downloaded plan, if there is one, as an agent's, and merges it into gv_queryConfHash: this agent's own
/// when the key is gv_agentKey in any case, else a slave's. At every moment the agent's file is the whole old plan or
/// the whole new one.
///
/// A new file that LoadQueryConfig would not take is logged and set aside as "queryconf.txt.refused". The plan in use
/// stays, with a log line, when the key cannot name a directory, and when the new file cannot be read or put in place:
/// it then waits in the download directory for the next call, whichever agent that call names.
void ReloadQueryConfDetails(std::u16string_view agentKey);

/// Deletes the plan that waits in the download directory, because the request that may have brought it is dropped. A
/// failure is logged.
void DropDownloadedPlan();

/// Waits for the collection in progress, then builds gv_sortVec and all timers again: every workflow runs at once.
void ReloadAndScheduleQueryData();

}  // namespace kv
