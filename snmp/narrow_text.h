// Narrow texts by pointer, NUL-terminated. A null pointer is allowed everywhere, and is not the same as an empty text.
// Nothing here throws.
#pragma once

#include <cstdint>
#include <memory>

namespace kv::snmp {

using NarrowText = std::unique_ptr<char[]>;

/// The length in bytes; 0 for null.
std::int32_t TextLength(const char* text);

/// Copies a text with its terminator to target, which has room, and gives target. For a null source it copies nothing
/// and gives null.
char* CopyText(char* target, const char* source);

/// 0 when equal, also for two nulls; -1 when only a is null, 1 when only b is; else the difference of the first two
/// bytes that differ, as a signed number of 8 bits.
std::int8_t CompareText(const char* a, const char* b);

/// Nothing is copied when one of the two is null.
void CopyBytes(void* target, const void* source, std::int32_t count);

/// Points at the first place of a character; null when there is none, or the text is null.
const char* FindCharacter(const char* text, char character);

/// Copies a text into target: 1, or 99 with a line at level 1 when memory ran out. target is null then, and for a null
/// text.
[[nodiscard]] int AllocateAndCopyString(NarrowText& target, const char* text);

// Buffers of a given length in bytes, cut at a delimiter. A null buffer counts as empty.

std::int32_t CountDelimiters(const char* buffer, std::int32_t length, char delimiter);

/// How many bytes come before the first delimiter, or all; ended says whether there was one.
std::int32_t TokenLength(const char* buffer, std::int32_t length, char delimiter, bool* ended);

/// The first space, tab, carriage return or vertical tab; 0 when there is none.
char ParseDelimiter(const char* buffer, std::int32_t length);

/// Copies of the tokens, empty ones too, with their count and lengths: one more than there are delimiters. Null with a
/// count of 0 for a null text, and with a line at level 1 when memory ran out. The array is the caller's;
/// FreeStringArray releases it.
[[nodiscard]] char** SplitString(const char* text, std::int32_t length, char delimiter, std::int32_t* count,
                                 std::unique_ptr<std::int32_t[]>& lengths);

/// Releases the entries and the array. Null is allowed.
void FreeStringArray(char** array, std::int32_t count);

}  // namespace kv::snmp
