// A question before something that cannot be undone.
#pragma once

#include <string_view>

namespace kv::commandline {

/// Asks a question on standard error and reads the answer at the terminal: true for "y" or "yes", in any letter case.
/// UsageError when standard input is not a terminal: whoever means it gives --yes, which every command that asks has.
[[nodiscard]] bool Confirmed(std::string_view question);

}  // namespace kv::commandline
