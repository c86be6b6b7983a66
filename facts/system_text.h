// Taking the small texts apart in which the kernel tells of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/system_file.h"

namespace kv::facts {

/// A file such as those below /proc and /sys, without blanks and line ends at its ends; none when it cannot be read, or
/// when nothing is left.
std::optional<std::string> ReadSystemLine(const std::string& path);

/// A file that holds one decimal number.
std::optional<std::uint64_t> ReadSystemNumber(const std::string& path);

/// Without blanks, tabs and line ends at both ends.
std::string_view Trimmed(std::string_view text);

/// Takes the next line off a text, without its end; false when the text is used up.
bool TakeLine(std::string_view& text, std::string_view& line);

/// Takes the next field off a line: what stands between blanks or tabs; empty when the line is used up.
std::string_view TakeField(std::string_view& line);

/// A whole decimal number; none for any other text, and for one too large.
std::optional<std::uint64_t> NumberOf(std::string_view text);

/// A whole hexadecimal number, after "0x" or without it; none as above.
std::optional<std::uint64_t> HexNumberOf(std::string_view text);

/// A text that stands for a fact; an empty one says that it is not known.
std::optional<std::string> KnownText(const std::string& text);

}  // namespace kv::facts
