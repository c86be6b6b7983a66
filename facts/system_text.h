// Reading the small texts in which the kernel tells of itself: fetching one, and taking it apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/linux/descriptor.h"

namespace platform::wmi {

/// read(2), again when it was interrupted.
ssize_t ReadOnce(int file, char* to, std::size_t room);

/// A whole file such as those below /proc and /sys; none when it cannot be read. Reads at most 16 MB.
std::optional<std::string> ReadSystemFile(const std::string& path);

/// The same without blanks and line ends at its ends; none also when nothing is left.
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

}  // namespace platform::wmi
