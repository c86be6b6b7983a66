// What a tool tells people when the registry fails.
#pragma once

#include <string>

#include "platform/errors.h"

namespace kv {

/// Whether a result says that the key or value does not exist.
bool IsGone(platform::Error result);

/// The missing directory of the registry's file, and what may be wrong; empty when the registry is there.
std::string MissingRegistryText();

/// Why the registry failed: MissingRegistryText, or the system's text with the error's number, and who has the rights
/// if they are lacking.
std::string RegistryFailureText(platform::Error failure);

}  // namespace kv
