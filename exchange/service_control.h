// Starting, stopping, pausing and continuing any service of this computer, and waiting until it is done.
//
// Each operation blocks its thread, asking the service manager again and again, and says whether the service has
// reached the state in time. Handles are opened and closed within. A limit is looked at after each sleep, which is as
// long as the service's wait hint says, up to an hour.
#pragma once

#include <string_view>

#include "platform/service_manager.h"

namespace kv {

/// True when the service was stopped and runs now, its active dependents seen to before. A service that is stopping is
/// waited for first, as long as it makes progress. 30 seconds at most for the dependents, and again for the service
/// itself.
bool StartServiceAndWait(std::u16string_view name);

/// True when the service is stopped now, after all that depend on it; false for one that was stopped or stopping
/// already. 30 seconds at most for the dependents, and again for the service itself.
bool StopServiceAndWait(std::u16string_view name);

/// From running to paused, and from paused to running; 30 seconds at most. False in any other state.
bool PauseServiceAndWait(std::u16string_view name);
bool ContinueServiceAndWait(std::u16string_view name);

/// Starts the service once for each active dependent, and waits until that one runs. True when there are none.
bool StartDependentServices(platform::ServiceHandle service, platform::ServiceHandle manager);

/// Stops each active dependent, in the order in which the manager lists them.
bool StopDependentServices(platform::ServiceHandle service, platform::ServiceHandle manager);

/// Waits as long as the service stays in a pending state and makes progress: status is the last one that could be had.
/// It sleeps a tenth of the wait hint at a time, at least 1 and at most 10 seconds. A check point that has not grown
/// for longer than the wait hint, or an hour, ends the wait, and so does a query that fails: false then, true when the
/// state was left.
bool WaitWhilePending(platform::ServiceHandle service, platform::ServiceState pending, platform::ServiceStatus& status);

/// Sleeps for the status's wait hint as it stands, an hour at most, or a tenth of a second where it has none, and asks
/// again.
platform::Error QueryAfterWaitHint(platform::ServiceHandle service, platform::ServiceStatus& status);

}  // namespace kv
