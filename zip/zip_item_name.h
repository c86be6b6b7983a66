// Names of items, made fit to be a path below a directory.
#pragma once

#include <string>
#include <string_view>

namespace kv {

/// A name from an archive as wide text: up to a NUL, without leading drives and separators, and without what stands
/// before a part ".." in its midst. A name that begins with ".." (such as "../x") stays as it is: the caller judges
/// where it leads (StaysBelowDirectory). May throw std::bad_alloc.
std::u16string CleansedName(std::string_view utf8);

}  // namespace kv
