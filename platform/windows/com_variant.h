// COM's texts and values, and what becomes of them in the agent. Nothing here lets a text or a value leak, whichever
// way a routine ends.
#pragma once

#include <memory>
#include <string_view>

#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <oleauto.h>

namespace platform {

struct SystemTextFree {
    void operator()(OLECHAR* text) const { ::SysFreeString(text); }
};

/// Owns a BSTR, or none.
using SystemText = std::unique_ptr<OLECHAR, SystemTextFree>;

/// A BSTR of all of the text, zero characters too. Throws std::bad_alloc.
SystemText SystemTextOf(std::u16string_view text);

/// The agent's copy of a BSTR; none is empty.
std::u16string TextOfSystem(BSTR text);

/// A VARIANT that is cleared with its owner.
struct OwnedVariant {
    VARIANT value;

    OwnedVariant() { ::VariantInit(&value); }
    ~OwnedVariant() { ::VariantClear(&value); }
    OwnedVariant(const OwnedVariant&) = delete;
    OwnedVariant& operator=(const OwnedVariant&) = delete;
};

/// The agent's copy of a value. Of what platform::Variant has no place for, an array's elements or a type that it does
/// not name, the type's number is kept alone.
Variant VariantOf(const VARIANT& value);

}  // namespace platform
