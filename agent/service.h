// The agent as a service of the system. The service itself does no work: it loads the settings, starts
// InvokeMainThread, reports its states, and waits for the stop event.
//
// It meets the service manager only through platform/service_host.h, so that anything that plays the manager can run
// it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/service_status.h"

namespace kv {

/// Entry point that the service manager calls on a thread of its own. Returns after the stopped state has been
/// reported; without that report it returns at once when the service cannot be set up, or one of the first two reports
/// fails. After the second one the main thread already runs.
void ServiceMain();

/// What the service manager calls with each control, on its own thread; always 0. Stop and shutdown take at most 20
/// seconds, in which the counters are saved and the server is told; then the stop event is set, whatever came of that.
std::uint32_t HandlerEx(std::uint32_t control, std::uint32_t eventType, void* eventData, void* context);

/// Reports a state to the service manager; false with a log line when that fails. Callable from any thread.
bool ChangeServiceStatus(platform::ServiceState state);

/// Tells the service manager in a line what the agent does, for people; nothing where none started it. Callable from
/// any thread.
void TellServiceManager(const std::string& text);

/// Thread body of a stop: saves the counters, tells the server if that is wanted, saves the counters again, and
/// releases the state; always 1. A std::exception ends one of these steps, with a log line.
std::uint32_t AgentShutdownWorker(void* ignored);

}  // namespace kv
