// This computer's name in its several forms.
//
// Private to platform/windows/.
#pragma once

#include <string>

#include "platform/windows/win32.h"

namespace platform {

/// The name in one of the system's forms.
[[nodiscard]] Error ComputerName(COMPUTER_NAME_FORMAT form, std::u16string& name);

}  // namespace platform
