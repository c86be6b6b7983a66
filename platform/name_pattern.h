// Matches names of files against patterns with "*" and "?", the same on every system: what a search finds must not
// depend on the short second names that some systems keep for a file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/files.h"

namespace platform {

/// The upper-case form of a character, by which names are compared without regard to case. Each backend has its own.
[[nodiscard]] char16_t UpperCaseOf(char16_t character);

/// A pattern with the two readings that whole patterns have: "*.*" finds every name, "X*." only names without a dot.
class NamePattern {
  public:
    explicit NamePattern(std::u16string_view pattern);

    bool Matches(std::u16string_view name) const;

  private:
    std::u16string upper_;
    bool refusesDots_ = false;
};

/// Order of name without regard to case; names that differ in case only are in order of their characters.
[[nodiscard]] bool ComesBefore(const FindData& left, const FindData& right);

/// Length of a pattern's directory part with the separator at its end; 0 when there is none.
[[nodiscard]] std::size_t DirectoryLength(std::u16string_view pattern);

}  // namespace platform
