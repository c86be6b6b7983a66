// The system's own texts for error numbers.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

struct MessageOperations {
    /// The system's text for an error number, or none where the system knows no such number.
    std::function<std::optional<std::u16string>(Error code)> FormatMessageW;
};

inline const MessageOperations& Messages() { return CurrentOperations<MessageOperations>(); }

}  // namespace platform
