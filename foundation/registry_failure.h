// What people are told when the registry fails.
#pragma once

#include <functional>
#include <string>

#include "platform/errors.h"

namespace kv {

/// Whether a result says that the key or value does not exist.
bool IsGone(platform::Error result);

/// Reads from the registry, and again each second, for a minute at most, while it fails for a reason that may pass, as
/// when its disk fails or somebody holds it: a service that ends at each start, or begins without its settings, is of
/// no use until someone starts it again. tell is called before the first wait. The last result of read.
platform::Error AskForAMinute(const std::function<platform::Error()>& read,
                              const std::function<void(platform::Error)>& tell);

/// Says that the registry's directory does not exist, so that nothing can be read or stored; empty when it does.
std::string MissingRegistryText();

/// Says that the registry's directory, or only the file in it, does not exist, so that nothing is in the registry;
/// empty when both do.
std::string EmptyRegistryText();

/// Whether the registry's directory is there and the file in it is not: the first change makes it.
bool IsRegistryNew();

/// Why the registry failed: EmptyRegistryText when that is why, or the registry's file with what is wrong with it and
/// what to do about it, or the system's text with the error's number.
std::string RegistryFailureText(platform::Error failure);

}  // namespace kv
