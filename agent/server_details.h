// Fills the agent state from the registry, and releases it.
#pragma once

#include <cstdint>

namespace kv {

/// Gives the settings their defaults (foundation/agent_state.h). Called like getCSDetails.
void SetDefaults();

/// Reads server details, identity and intervals in a fixed order. 0, or 13 at the first required value that is missing:
/// that field stays without a value (a port is 0), and every later one keeps its default. Each value that cannot be
/// read leaves a log line. Waits at most a second or so for name servers. Called before other threads read the state;
/// may throw std::bad_alloc.
std::int32_t getCSDetails();

/// Makes sure of the cryptographic keys and, when the proxy is switched on, reads its settings: what cannot be read
/// becomes absent, and all but a missing password leaves a log line. A password that the registry does not have may
/// come from the service manager, as the credential proxy-password. Called like getCSDetails.
void getProxyServerDetails();

/// Fills the state from all settings: getCSDetails, getProxyServerDetails and getServerTrust. An exception ends one of
/// them, with a log line, and not the others. When a required value is missing, missingLine is logged; null for no
/// line. While the registry fails for a reason that may pass, all is read again for a minute. Called like getCSDetails.
void LoadSettings(const char* missingLine = nullptr);

/// The same after the settings may have changed. What cannot be read is as before the first LoadSettings, and the bin
/// directory stays.
void ReloadSettings();

/// The end of a run: releases the state unless gv_isMainThreadStarted, and closes the log. Once the main thread has
/// started, other threads read the state, so every field stays as it is until the process ends; a second call, even at
/// the same time, then does no harm.
void FreeAllResources();

/// Makes the texts of getCSDetails and the bin directory absent.
void FreeCSDetails();

/// Makes the proxy's texts absent when the proxy is switched on, and in any case whether it is.
void FreeProxyDetails();

}  // namespace kv
