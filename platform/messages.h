// The system's own texts for error numbers, and those of a library that brings texts for numbers of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

/// A loaded library; 0 is none.
using ModuleHandle = std::uintptr_t;

struct MessageOperations {
    /// The system's text for an error number, or none where the system knows no such number. A line end that the system
    /// has behind it, as Windows mostly does, is a part of it.
    std::function<std::optional<std::u16string>(Error code)> FormatMessageW;

    /// Loads one of the system's own libraries for its texts. It stays loaded as long as the process runs; loading it
    /// again gives it again.
    std::function<Error(std::u16string_view name, ModuleHandle& module)> LoadLibraryW;

    /// FormatMessageW with a library's texts before the system's.
    std::function<std::optional<std::u16string>(ModuleHandle module, Error code)> FormatModuleMessageW;
};

inline const MessageOperations& Messages() { return CurrentOperations<MessageOperations>(); }

/// The system's text for an error number in UTF-8, without the line end that it may have; empty where there is none.
std::string MessageInLine(Error code);

}  // namespace platform
