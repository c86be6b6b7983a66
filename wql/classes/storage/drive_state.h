// What the classes of drives tell alike.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

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

inline CimArray CapabilitiesOf(bool isWritable, bool isRemovable) {
    std::vector<int> capabilities{3};
    if (isWritable) capabilities.push_back(4);
    if (isRemovable) capabilities.push_back(7);
    return ListOf(capabilities);
}

inline CimArray CapabilityTextsOf(bool isWritable, bool isRemovable) {
    std::vector<std::u16string_view> texts{u"Random Access"};
    if (isWritable) texts.emplace_back(u"Supports Writing");
    if (isRemovable) texts.emplace_back(u"Supports Removable Media");
    return ListOf(texts);
}

}  // namespace kv::wql
