#include "platform/cim_type.h"

namespace platform {

std::string NameOf(CimType type) {
    if (IsArray(type)) return NameOf(ElementOf(type)) + "[]";
    constexpr struct {
        CimType type;
        const char* name;
    } names[] = {
        {CimType::sint16, "sint16"}, {CimType::sint32, "sint32"},     {CimType::real32, "real32"},
        {CimType::real64, "real64"}, {CimType::string, "string"},     {CimType::boolean, "boolean"},
        {CimType::object, "object"}, {CimType::sint8, "sint8"},       {CimType::uint8, "uint8"},
        {CimType::uint16, "uint16"}, {CimType::uint32, "uint32"},     {CimType::sint64, "sint64"},
        {CimType::uint64, "uint64"}, {CimType::datetime, "datetime"}, {CimType::reference, "reference"},
        {CimType::char16, "char16"},
    };
    for (const auto& row : names) {
        if (row.type == type) return row.name;
    }
    return std::to_string(static_cast<unsigned>(type));
}

}  // namespace platform
