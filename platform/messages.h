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

/// A loaded library, or 0.
using ModuleHandle = std::uintptr_t;

struct MessageOperations {
    /// The system's text for an error number; absent when the system does not know the number. Where the system ends
    /// the text with a line end, as Windows mostly does, it is part of the text.
    std::function<std::optional<std::u16string>(Error code)> FormatMessageW;

    /// Loads one of the system's own libraries for its texts. It stays loaded as long as the process runs; loading it
    /// again gives the same handle.
    std::function<Error(std::u16string_view name, ModuleHandle& module)> LoadLibraryW;

    /// FormatMessageW, but the library's text comes before the system's. Absent for module 0.
    std::function<std::optional<std::u16string>(ModuleHandle module, Error code)> FormatModuleMessageW;
};

inline const MessageOperations& Messages() { return CurrentOperations<MessageOperations>(); }

/// The system's text for an error number in UTF-8, without a line end; empty when there is no text.
[[nodiscard]] std::string MessageInLine(Error code);

}  // namespace platform
