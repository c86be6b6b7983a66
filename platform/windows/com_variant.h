// COM's texts and values, and the agent's copies of them. Texts and values have owners here, so that none leaks,
// whichever way a routine ends.
#pragma once

#include <memory>
#include <string_view>

#include "platform/owned_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <oleauto.h>

namespace platform {

/// Owns a BSTR, or null.
using OwnedBstr = std::unique_ptr<OLECHAR, ReleasedBy<::SysFreeString>>;

/// A BSTR of all of the text, zero characters too. Throws std::bad_alloc.
OwnedBstr BstrOf(std::u16string_view text);

/// The agent's copy of a BSTR; empty for null.
std::u16string TextOfBstr(BSTR text);

/// A VARIANT that is cleared with its owner.
struct OwnedVariant {
    VARIANT value;

    OwnedVariant() { ::VariantInit(&value); }
    ~OwnedVariant() { ::VariantClear(&value); }
    OwnedVariant(const OwnedVariant&) = delete;
    OwnedVariant& operator=(const OwnedVariant&) = delete;
};

/// The agent's copy of a value. Of a type that platform::Variant does not name only the number is kept, and of an array
/// of several dimensions no elements.
Variant VariantOf(const VARIANT& value);

}  // namespace platform
