// The thread that turns a configured process into a running agent.
#pragma once

#include <cstdint>

namespace kv {

/// Thread body: working directory, enrolment, configuration, worker threads, and then parks forever. Returns 0, and
/// only when enrolment said not to run.
std::uint32_t InvokeMainThread(void* ignored);

/// Sleeps forever.
[[noreturn]] void WaitForever();

}  // namespace kv
