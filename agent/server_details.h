// Fills the agent state from the registry, and releases it.
#pragma once

#include <cstdint>

namespace kv {

/// Reads server details, identity and intervals, in a fixed order that ends at the first required value that is
/// missing: 13 then, with every later field at its default; 0 when all is read.
std::int32_t getCSDetails();

void getProxyServerDetails();

/// Closes the log at the end of a run, after releasing the state if no other thread reads it: with
/// gv_isMainThreadStarted every field stays as it is until the process ends. A second call, at the same time even, does
/// no harm then.
void FreeAllResources();
void FreeCSDetails();
void FreeProxyDetails();

}  // namespace kv
