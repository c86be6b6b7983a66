// The agent as a service of the system. The service itself holds no work: it loads the settings, starts
// InvokeMainThread, reports its states, and waits for the stop event.
//
// It meets the service manager only through platform/service_host.h, so that anything that plays the manager can run
// it.
#pragma once

#include <cstdint>

#include "platform/service_status.h"

namespace kv {

/// Entry point that the service manager calls, on a thread of its own. Returns after the stopped state has been
/// reported, or at once, and without such a report, when the service cannot be set up.
void ServiceMain();

/// What the service manager calls with each control; 0 always. Stop and shutdown take 20 seconds at most, in which the
/// server is told and the counters are saved; the stop event is set then, whatever came of it.
std::uint32_t HandlerEx(std::uint32_t control, std::uint32_t eventType, void* eventData, void* context);

/// Reports a state to the service manager; false, with a log line, when that fails.
bool ChangeServiceStatus(platform::ServiceState state);

/// Thread body: the report to the server where it is wanted, the counters saved, the state released; 1.
std::uint32_t AgentShutdownWorker(void* ignored);

}  // namespace kv
