// JSON documents as trees of HashTable and Vector, read by json-c and written here.
//
// Text form: "{ "a": 1, "b": [ "x", "y" ] }", an empty object "{ }", an empty array "[ ]", numbers with six decimals,
// slashes escaped, everything from U+0020 up as it stands. The members of each object are written from the last key to
// the first; arrays keep their order.
//
// What is read may be more than JSON: comments in both forms, texts in single quotation marks, and "true", "false" and
// "null" in any case. A \uXXXX escape from 80 up stands for the bytes of its UTF-8 form, one 16-bit unit for each: the
// escape of E9 is the two units C3 A9. A key that is given twice counts where and as it was given last.
//
// Refused are values nested more than 32 levels deep, objects of more than 10,000 members (a comma behind the last one
// counts as another), documents of more than 35 million 16-bit units, 250,000 opening brackets or 1,200,000 commas, and
// files of more than 70,000,002 bytes in whichever encoding. All but the nesting is checked before the parser sees the
// document, and nothing is put into the table before the whole document has been parsed.
//
// Callable from any thread; a table belongs to one thread at a time. Except for JSONFileToHash, what reads or writes a
// text throws std::bad_alloc when memory runs out.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/hash_table.h"
#include "platform/errors.h"

namespace kv {

/// In 16-bit units. A plan of 10,000 workflows has 3.4 million, a tenth of this.
inline constexpr std::size_t largestJsonDocument = 35'000'000;

/// A key that its object has again further on, so that the value here does not count. Lines are counted from 1.
struct RepeatedKey {
    std::u16string key;
    std::size_t line = 0;
    std::size_t lastLine = 0;  // of the one that counts
};

/// Whether a key is one of those that are asked for.
using KeyFilter = bool (*)(std::u16string_view key);

/// What reading a document came to.
struct JsonReadResult {
    bool ok = false;

    /// UTF-8. When not ok, the reason in the system's or the parser's words, with the place of a parser error (the
    /// offset counts 16-bit units from 0). When ok, what was passed over, or empty. For a file it begins with the
    /// file's name.
    std::string message;

    /// Why the file could not be read; else success.
    platform::Error fileError = platform::error::success;

    /// When ok, what was given again and is to be told, in document order. Of more than a hundred only so many.
    std::vector<RepeatedKey> repeated = {};
};

/// Parses a document whose top level is an object and fills the table with its members, by type: boolean 1, integer 2,
/// double 3 (the fraction is lost; a number beyond 32 bits becomes the nearest one within), text 4, array 5, object 6,
/// and 7 for an integer beyond 32 bits (its low 32 bits). JSON's null, as a member or an element, is left out. A text
/// ends at a U+0000 in it, with a log line. The table stays as it was when the file cannot be read, the text does not
/// parse, or the top level is not an object. When memory runs out it may hold some of the members.
///
/// The file is UTF-16LE, with or without a byte order mark, or UTF-8, which is known by its byte order mark or because
/// it holds no zero byte; each CR LF in it is taken as LF. Anything else is refused. isRepetitionTold chooses among the
/// keys that are given again; null for all of them.
[[nodiscard]] JsonReadResult JSONFileToHash(HashTable* table, std::u16string_view fileName,
                                            KeyFilter isRepetitionTold = nullptr);

/// The same with a text.
[[nodiscard]] JsonReadResult JSONTextToHash(HashTable* table, std::u16string_view text,
                                            KeyFilter isRepetitionTold = nullptr);

/// Appends a value to a list, a text as a copy; 1, or 0 with a log line: the value is still the caller's. AppendTable
/// and AppendVector (foundation/) take owners.
int AddValueToVector(Vector* vector, Word value, ValueType type);

/// The JSON text of a table, and of a list, neither of them null. A nested text, list or table that is null is written
/// as null.
std::u16string HashToJSONString(const HashTable* table);
std::u16string VectorToJSONString(const Vector* vector);

}  // namespace kv
