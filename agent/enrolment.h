// How the agent makes itself known to its server and gets its key.
#pragma once

namespace kv {

/// Enrols the agent and then prepares what collection depends on: unfinished files of an earlier run are removed, and
/// the file numbers are checked. Afterwards gv_agentKey holds the key for all later requests. gv_agentRunFlag says
/// whether to go on; if not, the agent's service has been stopped, and nothing is prepared.
///
/// An agent without a key blocks: it asks every 60 seconds until its server gives it a key. An agent that has a key
/// waits at most ten seconds for an answer, or until it has it when no thread can be started for the wait. Without a
/// good one it goes on with that key, so that a restart during an outage still collects, and a thread asks again every
/// 60 seconds until the server answers. What that answer says about running counts from the next start on. While the
/// stored key cannot be read, the agent does not ask for another one: it reads again every 60 seconds.
///
/// Called once, on the main thread. May throw std::bad_alloc.
void InitLicenseParams();

}  // namespace kv
