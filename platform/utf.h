// Conversion between the agent's wide text (UTF-16) and UTF-8. Both directions accept anything: what is not valid in
// one form becomes U+FFFD in the other. Callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace platform {

/// UTF-8 of a wide text; a surrogate without its partner becomes U+FFFD.
[[nodiscard]] std::string Utf8FromWide(std::u16string_view wide);

/// Wide text of UTF-8; each ill-formed sequence becomes U+FFFD.
[[nodiscard]] std::u16string WideFromUtf8(std::string_view utf8);

/// True when the bytes are well-formed UTF-8.
[[nodiscard]] bool IsValidUtf8(std::string_view utf8);

}  // namespace platform
