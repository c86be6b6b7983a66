// Routines for the small texts of the kernel: ReadSystemFile, which this header includes, reads them, and those below
// take them apart.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/system_file.h"

namespace kv::facts {

/// The text of a file; empty when there is no such file, absent when it is there and cannot be read.
std::optional<std::string> ReadFileIfThere(const std::string& path);

/// The text of a file below /proc or /sys, trimmed; absent when the file cannot be read, or nothing is left.
std::optional<std::string> ReadSystemLine(const std::string& path);

/// The number in a file that holds one decimal number; absent as above, or when the text is not a number.
std::optional<std::uint64_t> ReadSystemNumber(const std::string& path);

/// A text without the blanks, tabs and line ends before and after it.
std::string_view Trimmed(std::string_view text);

/// Takes the next line off a text, without the character that ends it; false when the text is used up.
bool TakeLine(std::string_view& text, std::string_view& line);

/// Takes the next field, the text up to a blank or a tab, off a line; empty when the line is used up.
std::string_view TakeField(std::string_view& line);

/// Takes the text up to a separator off a text, and the separator; all of the text when it has none.
std::string_view TakeUpTo(std::string_view separator, std::string_view& text);

/// Takes a line off a text, trimmed, with those that follow it for as long as one ends with a backslash. Lines that
/// start with one of the signs are comments: they are left out, and their backslashes mean nothing. False when the text
/// is used up.
bool TakeJoinedLine(std::string_view& text, std::string& joined, std::string_view commentSigns = {});

/// A whole decimal number; absent when the text is not one, or the number is too large.
std::optional<std::uint64_t> NumberOf(std::string_view text);

/// A whole hexadecimal number, after "0x" or without it; absent as above.
std::optional<std::uint64_t> HexNumberOf(std::string_view text);

/// The text of a fact; absent when it is empty, because then the fact is not known.
std::optional<std::string> KnownText(const std::string& text);

}  // namespace kv::facts
