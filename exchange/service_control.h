// Starting, stopping, pausing and continuing any service of this computer, and waiting until it is done.
//
// Each operation blocks its thread, asks the service manager again and again, and says whether the service has reached
// the state in time. It closes the handles that it opens. A limit is checked after each sleep, and a sleep is as long
// as the service's wait hint, up to an hour.
#pragma once

#include <string_view>

#include "platform/service_manager.h"

namespace kv {

/// True when the service was stopped and runs now. A service that is stopping is waited for first, as long as it makes
/// progress; then come its active dependents (StartDependentServices). 30 seconds at most for the dependents, and
/// again for the service itself.
bool StartServiceAndWait(std::u16string_view name);

/// True when the service is stopped now, its active dependents before it; false for one that was already stopped or
/// stopping. 30 seconds at most for the dependents, and again for the service itself.
bool StopServiceAndWait(std::u16string_view name);

/// From running to paused, and from paused to running; 30 seconds at most. False in any other state.
bool PauseServiceAndWait(std::u16string_view name);
bool ContinueServiceAndWait(std::u16string_view name);

/// Starts the service once for each active dependent, and waits until that dependent runs. True without dependents.
bool StartDependentServices(platform::ServiceHandle service, platform::ServiceHandle manager);

/// Stops each active dependent, in the order in which the manager lists them.
bool StopDependentServices(platform::ServiceHandle service, platform::ServiceHandle manager);

/// Waits as long as the service stays in a pending state and makes progress. status is the last one that was read. It
/// sleeps a tenth of the wait hint at a time, at least 1 and at most 10 seconds. True when the state was left. False
/// when a query fails, or when the check point has not grown for longer than the wait hint or an hour.
bool WaitWhilePending(platform::ServiceHandle service, platform::ServiceState pending, platform::ServiceStatus& status);

/// Sleeps for the whole wait hint of the status, an hour at most, or for a tenth of a second when it is 0, and asks
/// again.
platform::Error QueryAfterWaitHint(platform::ServiceHandle service, platform::ServiceStatus& status);

}  // namespace kv
