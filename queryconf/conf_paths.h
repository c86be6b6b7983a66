// Where plans and what belongs to them stand, relative to the bin directory. A slave's plan and its backup each stand
// in a directory named by the slave's key.
#pragma once

#include <string_view>

namespace kv::conf_path {

inline constexpr std::u16string_view ownPlan = u"..\\conf\\queryconf.txt";
inline constexpr std::u16string_view refusedPlan = u"..\\conf\\download\\queryconf.txt.refused";  // the last one
inline constexpr std::u16string_view slavesDirectory = u"..\\conf\\slaves\\";
inline constexpr std::u16string_view backupDirectory = u"..\\conf\\backup\\";
inline constexpr std::u16string_view downloadDirectory = u"..\\conf\\download\\";

/// The name of a plan's file in the last three directories.
inline constexpr std::u16string_view planName = u"queryconf.txt";

}  // namespace kv::conf_path
