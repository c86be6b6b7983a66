// How the agent makes itself known to its server and gets its key.
#pragma once

namespace kv {

/// Enrols the agent, blocking until that is settled, and then readies what collection rests on. Afterwards gv_agentKey
/// holds the key for all later requests and gv_agentRunFlag says whether to go on.
///
/// An agent without a key asks every 60 seconds until its server gives it one. An agent that has a key and gets no good
/// answer goes on with that key after the first attempt, so that a restart during an outage still collects; a thread of
/// its own asks again every 60 seconds until the server answers. What that answer says about running counts from the
/// next start on. While the stored key cannot be read, none is asked for: that is tried again every 60 seconds.
void InitLicenseParams();

}  // namespace kv
