// Win32_ScheduledJob: the active timers of systemd, and the jobs in cron's tables.
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

/// Gathers the timers, and the jobs of /etc/crontab and /etc/cron.d below a root, "" for this computer's own; those
/// only where a cron is installed. A manager that cannot be asked costs the timers, with a notice, and is a failure if
/// there is no job of cron either. A table that cron would ignore, for its lines, owner, mode or links, or that cannot
/// be read, is left out with a notice.
WmiStatus GatherScheduledJobs(const Gathering& gathering, const std::string& root);

}  // namespace kv::wql
