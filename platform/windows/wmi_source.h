// The operations of platform/wmi.h by COM, and those of their calls that a test answers in the system's place.
#pragma once

#include <chrono>
#include <functional>

#include "platform/windows/win32.h"

struct IWbemLocator;

namespace platform {

/// Where WMI comes from.
struct WmiSource {
    std::function<HRESULT()> initializeSecurity;

    /// Makes a locator, which the caller releases.
    std::function<HRESULT(IWbemLocator** locator)> createLocator;

    /// How long the next object may keep a query waiting before the query is given up. A provider that hangs never
    /// gives one, and the agent's timer would stand still with it.
    std::chrono::milliseconds objectLimit;
};

/// This computer's own, with a limit of 120 seconds.
WmiSource SystemWmi();

WmiOperations WmiFrom(const WmiSource& source);

}  // namespace platform
