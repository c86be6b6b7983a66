// The declared types of WMI's properties.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

/// A type by its number in the Common Information Model. An array has arrayFlag set as well.
enum class CimType : std::uint16_t {
    unknown = 0,
    sint16 = 2,
    sint32 = 3,
    real32 = 4,
    real64 = 5,
    string = 8,
    boolean = 11,
    object = 13,
    sint8 = 16,
    uint8 = 17,
    uint16 = 18,
    uint32 = 19,
    sint64 = 20,
    uint64 = 21,
    datetime = 101,
    reference = 102,  // the path of an object
    char16 = 103,
    arrayFlag = 0x2000,
};

constexpr CimType ArrayOf(CimType element) {
    return static_cast<CimType>(static_cast<unsigned>(element) | static_cast<unsigned>(CimType::arrayFlag));
}
constexpr bool IsArray(CimType type) {
    return (static_cast<unsigned>(type) & static_cast<unsigned>(CimType::arrayFlag)) != 0;
}
constexpr CimType ElementOf(CimType array) {
    return static_cast<CimType>(static_cast<unsigned>(array) & ~static_cast<unsigned>(CimType::arrayFlag));
}

/// The type as public references write it, such as "uint32" or "string[]"; the number of one without a name here.
std::string NameOf(CimType type);

}  // namespace platform
