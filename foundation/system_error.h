// Texts for system error numbers, in the log.
#pragma once

#include <string>

#include "platform/errors.h"

namespace kv {

/// Logs a code and its text at level 1 and returns the text: the system's, or OfficeUpdateError's when the system does
/// not know the code.
std::u16string LogSystemError(platform::Error code);

/// The same, without a result.
void LogLastSystemError(platform::Error code);

/// The fixed text for a code that the system does not know; for a code that has none, a text that says so.
std::u16string OfficeUpdateError(platform::Error code);

}  // namespace kv
