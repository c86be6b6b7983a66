// Fills the agent state from the registry, and releases it.
#pragma once

#include <cstdint>

namespace kv {

/// Reads server details, identity and intervals, in a fixed order that ends at the first required value that is
/// missing: 13 then, with every later field at its default; 0 when all is read.
std::int32_t getCSDetails();

void getProxyServerDetails();

/// Releases the state at the end of a run and closes the log.
void FreeAllResources();
void FreeCSDetails();
void FreeProxyDetails();

}  // namespace kv
