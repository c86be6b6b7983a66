// The agent's dictionary: wide-text keys to typed values. A parsed configuration, a result row and an outgoing record
// are each one table.
//
// Every table of the agent is made with one bucket, so keys come back in the order of their first insertion; whatever
// writes records out relies on that. Keys end at their first zero character and are compared exactly. A table has no
// lock: it belongs to one thread at a time, or nobody changes it any more.
//
// A table of many keys keeps an index beside its bucket, so that finding a key does not take longer as the table grows.
// No table may be null except where it is said.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/vector.h"

namespace kv {

struct HashEntry {
    char16_t* key;  // owned copy; null in an empty head entry
    Word value;
    ValueType type;
    HashEntry* next;
};

struct KeyIndex;

struct HashTable {
    HashEntry** buckets;  // each starts with a head entry, which has no key while the bucket is empty
    std::int32_t size;    // buckets, at least 1
    KeyIndex* index;      // owned; null while there are few keys or several buckets
};

/// Makes a table made by `new HashTable{}` ready; a size of 0 is taken as 1. 1: one of the two free operations releases
/// it. 0 when memory ran out: it has no buckets, and `delete` releases it.
[[nodiscard]] int InitHashTable(HashTable* table, std::int32_t size);

/// Stores a value under a key, new keys last; 1, or 0 when memory ran out: the table is then as it was. A value of
/// ValueType::text is copied, and the table frees its copy. Any other pointer must outlive the table, or
/// FreeAllHashTable frees it. A replaced value is not released: that is intended.
int PutHashValue(HashTable* table, std::u16string_view key, Word value, ValueType type);

/// PutHashValue of a text, up to its first zero character. Throws std::bad_alloc, too.
int PutHashText(HashTable* table, std::u16string_view key, std::u16string_view text);

/// The value, or 0 when the key is absent or its value is 0.
[[nodiscard]] Word GetHashValue(const HashTable* table, std::u16string_view key);

/// The entry, or null when the key is absent.
[[nodiscard]] HashEntry* GetHashEntry(const HashTable* table, std::u16string_view key);

/// The text under a key, or null when the key is absent or holds something else.
[[nodiscard]] const char16_t* GetHashText(const HashTable* table, std::u16string_view key);

/// The list under a key, or null when the key is absent or holds something else.
[[nodiscard]] Vector* GetHashVector(const HashTable* table, std::u16string_view key);

/// 1 or 0.
[[nodiscard]] int ContainsHashKey(const HashTable* table, std::u16string_view key);

/// 1, or 0 when the key is absent. The value is never freed, nor is the key of a first entry that has others behind it:
/// someone may hold it.
int RemoveHashKey(HashTable* table, std::u16string_view key);

[[nodiscard]] std::int32_t CountHashKeys(const HashTable* table);

/// The keys in order, then a null. The array is the caller's, the keys are the table's. Throws std::bad_alloc.
[[nodiscard]] std::unique_ptr<const char16_t*[]> GetHashKeys(const HashTable* table);

/// Puts every key of source that dest lacks, or holds with value 0, into dest. Nested values are shared, texts copied.
/// A key for which there is no memory is left out. 1, or 0 when either table is null.
int MergeHashTable(const HashTable* source, HashTable* dest);

/// Frees the entries with their texts and the table; nested lists and tables stay alive.
void FreeHashTable(HashTable* table);

/// Frees the table with everything below it. A null table is allowed.
void FreeAllHashTable(HashTable* table);

/// The bucket of a key, from 0.
std::int32_t HashOfKey(const HashTable* table, std::u16string_view key);

struct FreeAllHashTableDeleter {
    void operator()(HashTable* table) const { FreeAllHashTable(table); }
};

/// Owns a table with everything below it.
using HashTablePtr = std::unique_ptr<HashTable, FreeAllHashTableDeleter>;

/// A new table of one bucket, or null when memory ran out.
[[nodiscard]] HashTablePtr MakeHashTable();

/// PutHashValue of a table or of a list, which belongs to the table from then on; 0 when memory ran out: the value is
/// then freed.
int PutHashTable(HashTable* table, std::u16string_view key, HashTablePtr value);
int PutHashVector(HashTable* table, std::u16string_view key, VectorPtr value);

/// Appends a table, which the list owns from then on; 1, or 0 with a log line when memory ran out: the table is then
/// freed.
int AppendTable(Vector* vector, HashTablePtr table);

}  // namespace kv
