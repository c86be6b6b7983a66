#include "platform/windows/com_variant.h"

#include <new>

namespace platform {

namespace {

std::vector<Variant> ElementsOf(const VARIANT& array) {
    std::vector<Variant> elements;
    SAFEARRAY* const list = array.parray;
    LONG first = 0;
    LONG last = -1;
    if (list == nullptr || ::SafeArrayGetDim(list) != 1 || FAILED(::SafeArrayGetLBound(list, 1, &first)) ||
        FAILED(::SafeArrayGetUBound(list, 1, &last)))
        return elements;
    const VARTYPE type = static_cast<VARTYPE>(array.vt & VT_TYPEMASK);
    for (LONG index = first; index <= last; ++index) {
        OwnedVariant element;
        void* const place = type == VT_VARIANT ? static_cast<void*>(&element.value) : &element.value.llVal;
        if (FAILED(::SafeArrayGetElement(list, &index, place))) break;
        if (type != VT_VARIANT) element.value.vt = type;
        elements.push_back(VariantOf(element.value));
    }
    return elements;
}

}  // namespace

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
    if ((value.vt & VT_ARRAY) != 0) copy.elements = ElementsOf(value);
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
