// A new plan from the server: fetched and unpacked into "..\conf\download\", put in the place of the plan in use, which
// becomes the backup, and scheduled. Everything here runs on the thread that serves requests, while the timer thread
// goes on collecting by the old plan until the schedule is built again.
#pragma once

#include <string_view>

#include "foundation/text.h"

namespace kv {

/// Whether a key from the server is this agent's own, in any case.
[[nodiscard]] bool IsOwnAgentKey(std::u16string_view key);

/// Whether a key can be that of a slave: the name of a directory on every system, and none that a plan's files have
/// beside it.
[[nodiscard]] bool IsSlaveKey(std::u16string_view key);

/// The name of a slave's directory: as it stands below "..\conf\slaves\", in whatever case, or else the key itself.
std::u16string SlaveDirectoryName(std::u16string_view key);

/// Makes the backup and download directories, then downloads the archive at the URL from the server and unpacks it into
/// the download directory, from which everything but plans and the list of requests is deleted then. None downloads
/// nothing. A failed download is logged and leaves things as they are, and so does an archive for which the disk has no
/// room.
void RequestingConfigDetailstoCS(const OptionalText& confFileDldURL);

/// Installs the downloaded plan, if there is one, as that of an agent (gv_agentKey in any case: this agent's own, else
/// a slave's) and merges it into gv_queryConfHash. At every moment the agent's file is the old plan or the new one,
/// whole.
///
/// A new file that LoadQueryConfig would not take is logged and set aside as "queryconf.txt.refused"; the plan in use
/// stays as it is. So does it, with a log line, when the key can name no directory or the new file cannot be put in
/// place, or not be read; the new file then waits in the download directory for the next call, whichever agent that is
/// for.
void ReloadQueryConfDetails(std::u16string_view agentKey);

/// Builds gv_sortVec and all timers again, after the collection in progress has ended: every workflow runs at once.
void ReloadAndScheduleQueryData();

}  // namespace kv
