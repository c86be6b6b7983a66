// Pins of public keys, as the setting KVServerPinnedKey lists them: "sha256//" and the SHA-256 of the key in Base64,
// 44 characters. Several stand with semicolons between them; blanks around a pin do not count.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kv {

struct KeyPins {
    std::vector<std::u16string> pins;

    /// The first part that is not a pin; pins is empty then. Empty with no pins when there was nothing to read.
    std::u16string wrong;
};

/// Throws std::bad_alloc.
KeyPins ReadKeyPins(std::u16string_view list);

}  // namespace kv
