// Tells how the agent is: to people and kvagentctl in "..\logs\status.json", to the service manager in a line, and to
// programs in the file that the setting MetricsFile names. The same thread takes a changed AgentLogLevel.
#pragma once

#include <cstdint>
#include <string>

#include "agent/health_file.h"

namespace kv {

/// Thread body: reports at once, soon after each event of weight (foundation/agent_health.h), and else once a minute if
/// anything has changed; status.json also every ten minutes. Wakes once a minute when nothing happens. A file that
/// cannot be written is tried again each time; a log line says when that begins and when it ends. "/t" beside the
/// service writes neither file. The metrics are written on a thread of their own, and a folder that does not answer
/// keeps nothing but them waiting. Never returns.
std::uint32_t ReportHealth(void* ignored);

/// The first required setting that is missing or wrong, in the order in which they are read, and what it is; empty
/// when all are there. Behind a missing one, none is read.
std::string SettingObstacle();

/// Writes status.json of an agent that cannot begin its work, at most every ten minutes unless something has changed.
/// Not where another agent works. Before ReportHealth is started.
void ReportObstacle();

/// The last report of a run: status.json tells that the agent is stopped. Nothing is reported after it. It waits for a
/// report that is on its way, for a second at most.
void ReportStop();

/// The same for the metrics, whose folder may be slow: after everything that has to be done before the process ends.
void ReportStopInMetrics();

/// How the agent is, in a line for people: "LAB1 at cs:8443, last upload 18:49, 2 zips wait", with the reason while
/// uploads fail, or what keeps it from its server. Throws std::bad_alloc.
std::string HealthLine(const HealthSnapshot& health, std::uint64_t waitingZips);

}  // namespace kv
