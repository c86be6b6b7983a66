// Texts for system error numbers, in the log.
#pragma once

#include <string>

#include "platform/errors.h"

namespace kv {

/// Logs "Error code, Error Message" at level 1 and returns the system's text for the code, or OfficeUpdateError's where
/// the system has none.
std::u16string LogSystemError(platform::Error code);

/// The same, without a result.
void LogLastSystemError(platform::Error code);

/// Fixed text for codes that the system does not know.
std::u16string OfficeUpdateError(platform::Error code);

}  // namespace kv
