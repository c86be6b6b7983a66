// JSON documents as trees of HashTable and Vector, read by json-c and written here.
//
// Text form: "{ "a": 1, "b": [ "x", "y" ] }", an empty object "{ }", an empty array "[ ]", numbers with six decimals,
// slashes escaped, everything from U+0020 up as it stands. The members of each object are written from the last key to
// the first; arrays keep their order.
//
// What is read may be more than JSON: comments in both forms, texts in single quotation marks, "true", "false" and
// "null" in any case. A \uXXXX escape from 80 up stands for the bytes of its UTF-8 form, one 16-bit unit for each: the
// escape of E9 is the two units C3 A9. A key given twice counts where and as it was given last. Refused are values
// nested more than 32 levels deep, objects of more than 10,000 members (a comma behind the last counts as one more) and
// documents of more than 35 million 16-bit units, 250,000 opening brackets or 1,200,000 commas. All of it is asked
// before anything is made of the document.
//
// Callable from any thread; a table belongs to one thread at a time.
#pragma once

#include <string>
#include <string_view>

#include "foundation/hash_table.h"
#include "platform/errors.h"

namespace kv {

/// In 16-bit units. A plan of 10,000 workflows has 3.4 million and meets it ten times over.
inline constexpr std::size_t largestJsonDocument = 35'000'000;

/// What reading a document came to.
struct JsonReadResult {
    bool ok = false;

    /// UTF-8. Not ok: why, in the system's or the parser's words, with the place for a parser error (the offset counts
    /// 16-bit units from 0). Ok: what of the text was passed over, or empty. From a file it begins with the file's
    /// name.
    std::string message;

    /// Why the file could not be read, or success.
    platform::Error fileError = platform::error::success;
};

/// Parses a document whose top level is an object and fills the table with its members, by type: boolean 1, integer 2,
/// double 3 (the fraction is lost; beyond 32 bits the nearest end of that range), text 4, array 5, object 6, an integer
/// beyond 32 bits 7 (its low 32 bits). A null member or element is left out. A text ends at a U+0000 in it, with a log
/// line. A file that cannot be read, a text that does not parse and a top level that is not an object leave the table
/// as it was.
///
/// The file is UTF-16LE, with or without a byte order mark, or UTF-8, which is told by its byte order mark or by
/// holding no zero byte; each CR LF in it is taken as LF. Anything else is refused.
[[nodiscard]] JsonReadResult JSONFileToHash(HashTable* table, std::u16string_view fileName);

/// The same from a text.
[[nodiscard]] JsonReadResult JSONTextToHash(HashTable* table, std::u16string_view text);

/// Appends a value to a list, copying it when it is a text; 1, or 0 with a log line and the value still the caller's.
int AddValueToVector(Vector* vector, Word value, ValueType type);

/// The JSON text of a table, and of a list. A text, list or table that is null is written as null.
std::u16string HashToJSONString(const HashTable* table);
std::u16string VectorToJSONString(const Vector* vector);

}  // namespace kv
