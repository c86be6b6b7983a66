#include "platform/windows/com_variant.h"

#include <new>

namespace platform {

OwnedBstr BstrOf(std::u16string_view text) {
    const std::wstring wide = WideOf(text);
    OwnedBstr owned(::SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size())));
    if (!owned) throw std::bad_alloc();
    return owned;
}

std::u16string TextOfBstr(BSTR text) { return Utf16FromWide({text, ::SysStringLen(text)}); }

Variant VariantOf(const VARIANT& value) {
    Variant copy;
    copy.type = VariantType{value.vt};
    switch (value.vt) {
        case VT_I2:
            copy.integer = value.iVal;
            break;
        case VT_I4:
            copy.integer = value.lVal;
            break;
        case VT_UI1:
            copy.integer = value.bVal;
            break;
        case VT_BOOL:
            copy.integer = value.boolVal;
            break;
        case VT_R4:
            copy.real = static_cast<double>(value.fltVal);
            break;
        case VT_R8:
            copy.real = value.dblVal;
            break;
        case VT_BSTR:
            copy.text = TextOfBstr(value.bstrVal);
            break;
        default:
            break;
    }
    return copy;
}

}  // namespace platform
