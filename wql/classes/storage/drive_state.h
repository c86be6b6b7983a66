// What the classes of drives tell alike.
#pragma once

#include <cstdint>
#include <string_view>

#include "wql/cim_value.h"

namespace kv::wql {

inline constexpr std::string_view userConfigMeaning = "always FALSE: Linux sets devices up itself";
inline constexpr std::string_view errorCodeMeaning = "0 works, 24 its driver has given it up";
inline constexpr std::string_view capabilitiesMeaning =
    "3 random access, 4 if it can be written, 7 if the medium can be taken out";

constexpr std::u16string_view StatusOf(bool works) { return works ? u"OK" : u"Error"; }

/// The number in Windows of "not working properly", or 0.
constexpr std::uint32_t ErrorCodeOf(bool works) {
    constexpr std::uint32_t notWorking = 24;
    return works ? 0 : notWorking;
}

constexpr CimArray CapabilitiesOf(bool isWritable, bool isRemovable) {
    return {std::size_t{1} + (isWritable ? 1 : 0) + (isRemovable ? 1 : 0)};
}

}  // namespace kv::wql
