// Wide-text helpers. Where "none" and "empty" differ, a text is a std::optional or a pointer that may be null.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// A text that may be none.
using OptionalText = std::optional<std::u16string>;

/// A heap copy, NUL-terminated, released with FreeText. Null when memory ran out.
[[nodiscard]] char16_t* CopyText(std::u16string_view text);
void FreeText(char16_t* text);

/// a + b.
std::u16string ConcatStrings(std::u16string_view a, std::u16string_view b);

/// Stores a copy of source in dest; 1, or 99 with a log line when memory ran out.
[[nodiscard]] int AllocateAndDoStrcpy(OptionalText& dest, std::u16string_view source);

/// Position of the first occurrence of part in text, case-sensitive, or npos.
std::size_t SubString(std::u16string_view text, std::u16string_view part);

/// Wide copy of a UTF-8 text; 1, or 0 when the text is null or ill-formed, and then outWide is left alone.
int ChangeUtf8ToWideStr(const char* utf8, std::u16string& outWide);

/// UTF-8 copy of a wide text; false when the text is ill-formed, and then outUtf8 is left alone.
[[nodiscard]] bool ChangeWideToUtf8Str(std::u16string_view wide, std::string& outUtf8);

/// Replaces all occurrences in place and returns the text.
std::u16string& ReplaceChar(std::u16string& text, char16_t from, char16_t to);

/// Signed decimal number; -1 when a character is not a digit after an optional sign. A number beyond 32 bits stops at
/// the nearest end of that range; an empty text is 0.
[[nodiscard]] std::int32_t ParseDecimal(std::u16string_view text);

/// Difference of the first unequal characters, ASCII letters folded to lower case. None sorts before anything; two
/// nones are equal.
[[nodiscard]] int CompareIgnoreCase(std::optional<std::u16string_view> a, std::optional<std::u16string_view> b);

/// How often a character stands in the first length positions, in 16 bits.
std::uint16_t CountChar(std::u16string_view text, std::size_t length, char16_t character);

/// Position of a character, or npos.
std::size_t FindChar(std::u16string_view text, char16_t character);

/// Decimal text of a number.
std::u16string DecimalText(std::int64_t number);

/// A text as a value in the query of a URL: the characters that would end or change it are escaped. The transport sees
/// to blanks and to what is beyond ASCII.
std::u16string QueryValue(std::u16string_view text);

}  // namespace kv
