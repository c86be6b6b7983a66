// Names of items, made fit to be a path below a directory.
#pragma once

#include <string>
#include <string_view>

namespace kv {

/// The name from an archive in wide text, up to a NUL, without drives and separators in front and without what stands
/// before a part ".." in its midst. A name with ".." alone in front (such as "../x") stays as it is: where it leads is
/// for the caller to judge (StaysBelowDirectory).
std::u16string CleansedName(std::string_view utf8);

}  // namespace kv
