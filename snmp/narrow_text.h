// Narrow texts by pointer, NUL-terminated. A text that is null is allowed everywhere and is not the same as an empty
// one.
#pragma once

#include <cstdint>
#include <memory>

namespace kv::snmp {

using NarrowText = std::unique_ptr<char[]>;

/// In bytes; 0 for null.
std::int32_t TextLength(const char* text);

/// Copies with the terminator and gives target, which has room; null, with nothing copied, for a source that is null.
char* CopyText(char* target, const char* source);

/// 0 when equal, also for two nulls; -1 when only a is null, 1 when only b is; else the difference of the first two
/// bytes that differ, as a number of 8 bits with a sign.
std::int8_t CompareText(const char* a, const char* b);

/// Nothing is copied when one of the two is null.
void CopyBytes(void* target, const void* source, std::int32_t count);

/// The first place of a character, or null.
const char* FindCharacter(const char* text, char character);

/// A copy; 1, or 99 with a line at level 1 when memory ran out. A text that is null gives a copy that is null.
[[nodiscard]] int AllocateAndCopyString(NarrowText& target, const char* text);

// Buffers of a given length in bytes, cut at a delimiter.

std::int32_t CountDelimiters(const char* buffer, std::int32_t length, char delimiter);

/// Bytes ahead of the first delimiter, or all; ended tells whether there was one.
std::int32_t TokenLength(const char* buffer, std::int32_t length, char delimiter, bool* ended);

/// The first space, tab, carriage return or vertical tab, or 0.
char ParseDelimiter(const char* buffer, std::int32_t length);

/// Copies of the tokens, empty ones too, with their count and their lengths; one more than there are delimiters. Null,
/// with a count of 0, for a text that is null, and with a line at level 1 when memory ran out. The caller's, released
/// with FreeStringArray.
[[nodiscard]] char** SplitString(const char* text, std::int32_t length, char delimiter, std::int32_t* count,
                                 std::unique_ptr<std::int32_t[]>& lengths);

/// Releases the entries and the array. Null is allowed.
void FreeStringArray(char** array, std::int32_t count);

}  // namespace kv::snmp
