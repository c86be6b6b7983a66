// Wide-text helpers. A text that may be absent, which is not the same as empty, is a std::optional or a pointer that
// may be null. Callable from any thread. What makes a text may throw std::bad_alloc unless it says otherwise.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// A text that may be absent.
using OptionalText = std::optional<std::u16string>;

/// A heap copy, NUL-terminated; the caller's, released with FreeText. Null when memory ran out.
[[nodiscard]] char16_t* CopyText(std::u16string_view text);
/// Null is allowed.
void FreeText(char16_t* text);

/// a + b; an empty text with a log line when memory ran out.
std::u16string ConcatStrings(std::u16string_view a, std::u16string_view b);

/// Stores a copy of source in dest; 1, or 99 with a log line when memory ran out: dest is then as it was.
[[nodiscard]] int AllocateAndDoStrcpy(OptionalText& dest, std::u16string_view source);

/// Position of the first occurrence of part in text, case-sensitive, or npos.
std::size_t SubString(std::u16string_view text, std::u16string_view part);

/// A wide copy of a UTF-8 text; 1, or 0 with outWide untouched when the text is null or ill-formed.
int ChangeUtf8ToWideStr(const char* utf8, std::u16string& outWide);

/// A UTF-8 copy of a wide text; false with outUtf8 untouched when the text is ill-formed.
[[nodiscard]] bool ChangeWideToUtf8Str(std::u16string_view wide, std::string& outUtf8);

/// Replaces all occurrences in place and returns the text.
std::u16string& ReplaceChar(std::u16string& text, char16_t from, char16_t to);

/// A signed decimal number; -1 when anything but digits follows an optional sign. A number beyond 32 bits becomes the
/// nearest one within; an empty text is 0.
[[nodiscard]] std::int32_t ParseDecimal(std::u16string_view text);

/// The difference of the first unequal characters, ASCII letters folded to lower case; 0 when the texts are equal. An
/// absent text sorts before any other; two absent texts are equal.
[[nodiscard]] int CompareIgnoreCase(std::optional<std::u16string_view> a, std::optional<std::u16string_view> b);

/// How often a character stands in the first `length` positions, in 16 bits.
std::uint16_t CountChar(std::u16string_view text, std::size_t length, char16_t character);

/// Position of a character, or npos.
std::size_t FindChar(std::u16string_view text, char16_t character);

/// Decimal text of a number.
std::u16string DecimalText(std::int64_t number);

/// A text as a value in the query of a URL: the characters that would end or change it are escaped. The transport takes
/// care of blanks and of what is beyond ASCII.
std::u16string QueryValue(std::u16string_view text);

}  // namespace kv
