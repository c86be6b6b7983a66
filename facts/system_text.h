// Takes apart the small texts in which the kernel tells of itself, and brings the routine that reads them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/system_file.h"

namespace kv::facts {

/// A file such as those below /proc and /sys, without blanks and line ends at its ends; absent when it cannot be read,
/// or nothing is left.
std::optional<std::string> ReadSystemLine(const std::string& path);

/// The number in a file that holds one decimal number; absent as above, or when it is not a number.
std::optional<std::uint64_t> ReadSystemNumber(const std::string& path);

/// Without blanks, tabs and line ends at both ends.
std::string_view Trimmed(std::string_view text);

/// Takes the next line off a text, without its end; false when the text is used up.
bool TakeLine(std::string_view& text, std::string_view& line);

/// Takes the next field off a line: what stands between blanks or tabs; empty when the line is used up.
std::string_view TakeField(std::string_view& line);

/// A whole decimal number; absent when the text is not one, or the number is too large.
std::optional<std::uint64_t> NumberOf(std::string_view text);

/// A whole hexadecimal number, after "0x" or without it; absent as above.
std::optional<std::uint64_t> HexNumberOf(std::string_view text);

/// A text that tells a fact; absent when it is empty, because then the fact is not known.
std::optional<std::string> KnownText(const std::string& text);

}  // namespace kv::facts
