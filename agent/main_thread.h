// The thread that turns a configured process into a running agent.
#pragma once

#include <cstdint>

namespace kv {

/// Thread body: working directory, enrolment, configuration, worker threads; then it parks forever. A std::exception
/// ends one of these steps, with a log line. Returns 0 only when enrolment said not to run, after StopService.
std::uint32_t InvokeMainThread(void* ignored);

/// Sleeps forever.
[[noreturn]] void WaitForever();

}  // namespace kv
