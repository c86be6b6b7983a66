// JSON documents as trees of HashTable and Vector, read by json-c and written here.
//
// Text form: "{ "a": 1, "b": [ "x", "y" ] }", an empty object "{ }", an empty array "[ ]", numbers with six decimals,
// slashes escaped, everything from U+0020 up as it stands. The members of each object are written from the last key to
// the first; arrays keep their order.
//
// Files are UTF-16LE; a byte order mark is skipped.
#pragma once

#include <string>
#include <string_view>

#include "foundation/hash_table.h"
#include "platform/errors.h"

namespace kv {

/// What reading a document came to. ok: the table is filled. Else the table is as it was and message says why, in the
/// system's or the parser's words, with the offset for a parser error.
struct JsonReadResult {
    bool ok = false;
    std::string message;
};

/// Parses a document whose top level is an object and fills the table with its members, by type: boolean 1, integer 2,
/// double 3 (the fraction is lost), text 4, array 5, object 6, an integer beyond 32 bits 7 (low 32 bits). A null member
/// or element is left out. A file that cannot be read, a text that does not parse and a top level that is no object leave
/// the table as it was.
[[nodiscard]] JsonReadResult JSONFileToHash(HashTable* table, std::u16string_view fileName);

/// The same from a text.
[[nodiscard]] JsonReadResult JSONTextToHash(HashTable* table, std::u16string_view text);

/// Appends a value to a list, copying it when it is a text; 1, or 0 with a log line.
int AddValueToVector(Vector* vector, Word value, ValueType type);

/// The JSON text of a table, and of a list.
std::u16string HashToJSONString(const HashTable* table);
std::u16string VectorToJSONString(const Vector* vector);

}  // namespace kv
