#include "foundation/hash_table.h"

#include <algorithm>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "foundation/text.h"

namespace kv {

/// The entries of a table's one bucket by their keys, whose characters are the entries' own. Only operations that
/// change the table make or change it, so several threads may search a table that nobody changes any more.
struct KeyIndex {
    std::unordered_map<std::u16string_view, HashEntry*> entries;
    HashEntry* last = nullptr;
};

namespace {

/// Up to this many keys are searched one by one.
constexpr std::int32_t fewKeys = 64;

/// A key ends at its first zero character.
std::u16string_view ClosedKey(std::u16string_view key) { return key.substr(0, key.find(u'\0')); }

HashEntry* FirstEntry(const HashTable* table, std::u16string_view key) { return table->buckets[HashOfKey(table, key)]; }

/// Does not measure the entry's key first: most comparisons end at its first characters.
bool HasKey(const HashEntry* entry, std::u16string_view key) {
    const char16_t* other = entry->key;
    if (!other) return false;
    for (const char16_t character : key) {
        if (*other == u'\0' || *other++ != character) return false;
    }
    return *other == u'\0';
}

/// The word to store: a copy for a text, the value itself for all else. False when memory ran out.
bool StoredValue(Word& value, ValueType type) {
    if (type != ValueType::text || value == 0) return true;
    const char16_t* copy = CopyText(reinterpret_cast<const char16_t*>(value));
    value = reinterpret_cast<Word>(copy);
    return copy != nullptr;
}

void FreeTextOf(Word value, ValueType type) {
    if (type == ValueType::text) FreeText(reinterpret_cast<char16_t*>(value));
}

/// Gives an entry without a key its key and value; false when memory ran out.
bool FillEntry(HashEntry* entry, std::u16string_view key, Word value, ValueType type) {
    if (!StoredValue(value, type)) return false;
    char16_t* keyCopy = CopyText(key);
    if (!keyCopy) {
        FreeTextOf(value, type);
        return false;
    }
    entry->key = keyCopy;
    entry->value = value;
    entry->type = type;
    return true;
}

void DropIndex(HashTable* table) { delete std::exchange(table->index, nullptr); }

void AddToIndex(KeyIndex& index, HashEntry* entry) {
    index.entries.emplace(entry->key, entry);
    index.last = entry;
}

/// Makes the index of a table, or adds a new entry to it. When memory runs out the table goes on without an index.
void IndexEntry(HashTable* table, HashEntry* added) {
    try {
        if (table->index) return AddToIndex(*table->index, added);
        auto index = std::make_unique<KeyIndex>();
        for (HashEntry* entry = table->buckets[0]; entry; entry = entry->next) AddToIndex(*index, entry);
        table->index = index.release();
    } catch (const std::bad_alloc&) {
        DropIndex(table);
    }
}

/// Takes an entry that is not the only one out of the index.
void RemoveFromIndex(KeyIndex& index, HashEntry* entry, HashEntry* previous) {
    index.entries.erase(entry->key);
    if (index.last == entry) index.last = previous;
}

/// The entry of a key, or the last one of its bucket when the key is absent; passed counts the entries before it that
/// had to be looked at.
HashEntry* FindOrLast(const HashTable* table, std::u16string_view key, std::int32_t& passed) {
    if (table->index) {
        const auto found = table->index->entries.find(key);
        return found == table->index->entries.end() ? table->index->last : found->second;
    }
    HashEntry* entry = FirstEntry(table, key);
    for (; !HasKey(entry, key) && entry->next; entry = entry->next) ++passed;
    return entry;
}

/// Frees every entry of a table and the table; releaseValue gets each value with its type.
template <class Release>
void FreeTable(HashTable* table, Release releaseValue) {
    for (std::int32_t i = 0; i < table->size; ++i) {
        for (HashEntry* entry = table->buckets[i]; entry;) {
            HashEntry* next = entry->next;
            if (entry->key) releaseValue(entry->value, entry->type);
            FreeText(entry->key);
            delete entry;
            entry = next;
        }
    }
    DropIndex(table);
    delete[] table->buckets;
    delete table;
}

void FreeValueOf(Word value, ValueType type) {
    if (type == ValueType::vector)
        FreeAllVector(reinterpret_cast<Vector*>(value));
    else if (type == ValueType::table)
        FreeAllHashTable(reinterpret_cast<HashTable*>(value));
    else
        FreeTextOf(value, type);
}

/// PutHashValue with the entry as its result; null when memory ran out. The key holds no zero character.
HashEntry* PutEntry(HashTable* table, std::u16string_view key, Word value, ValueType type) {
    std::int32_t passed = 0;
    HashEntry* entry = FindOrLast(table, key, passed);
    if (!entry->key) return FillEntry(entry, key, value, type) ? entry : nullptr;
    if (HasKey(entry, key)) {
        if (!StoredValue(value, type)) return nullptr;
        // The replaced value is not released: callers keep pointers to values that they have read.
        entry->value = value;
        entry->type = type;
        return entry;
    }
    HashEntry* added = new (std::nothrow) HashEntry{};
    if (!added) return nullptr;
    if (!FillEntry(added, key, value, type)) {
        delete added;
        return nullptr;
    }
    entry->next = added;
    if (table->index || (passed >= fewKeys && table->size == 1)) IndexEntry(table, added);
    return added;
}

/// Puts what an owner holds, which the table owns from then on.
template <class Owner>
int PutOwned(HashTable* table, std::u16string_view key, Owner owner, ValueType type) {
    HashEntry* entry = PutEntry(table, ClosedKey(key), 0, type);
    if (!entry) return 0;
    entry->value = reinterpret_cast<Word>(owner.release());
    return 1;
}

}  // namespace

std::int32_t HashOfKey(const HashTable* table, std::u16string_view key) {
    if (table->size == 1) return 0;
    std::int64_t hash = 0;
    for (const char16_t character : ClosedKey(key)) hash = (hash * 26 + character) % table->size;
    return static_cast<std::int32_t>(hash);
}

int InitHashTable(HashTable* table, std::int32_t size) {
    table->size = std::max(size, 1);
    table->index = nullptr;
    table->buckets = new (std::nothrow) HashEntry* [static_cast<std::size_t>(table->size)] {};
    if (!table->buckets) return 0;
    for (std::int32_t i = 0; i < table->size; ++i) {
        table->buckets[i] = new (std::nothrow) HashEntry{};
        if (table->buckets[i]) continue;
        while (i-- > 0) delete table->buckets[i];
        delete[] table->buckets;
        table->buckets = nullptr;
        return 0;
    }
    return 1;
}

int PutHashValue(HashTable* table, std::u16string_view key, Word value, ValueType type) {
    return PutEntry(table, ClosedKey(key), value, type) ? 1 : 0;
}

int PutHashText(HashTable* table, std::u16string_view key, std::u16string_view text) {
    const std::u16string terminated(text);
    return PutHashValue(table, key, reinterpret_cast<Word>(terminated.c_str()), ValueType::text);
}

HashEntry* GetHashEntry(const HashTable* table, std::u16string_view key) {
    key = ClosedKey(key);
    std::int32_t passed = 0;
    HashEntry* entry = FindOrLast(table, key, passed);
    return HasKey(entry, key) ? entry : nullptr;
}

Word GetHashValue(const HashTable* table, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(table, key);
    return entry ? entry->value : 0;
}

const char16_t* GetHashText(const HashTable* table, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(table, key);
    return entry && entry->type == ValueType::text ? reinterpret_cast<const char16_t*>(entry->value) : nullptr;
}

Vector* GetHashVector(const HashTable* table, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(table, key);
    return entry && entry->type == ValueType::vector ? reinterpret_cast<Vector*>(entry->value) : nullptr;
}

int ContainsHashKey(const HashTable* table, std::u16string_view key) { return GetHashEntry(table, key) ? 1 : 0; }

int RemoveHashKey(HashTable* table, std::u16string_view key) {
    key = ClosedKey(key);
    HashEntry*& first = table->buckets[HashOfKey(table, key)];
    HashEntry* previous = nullptr;
    HashEntry* entry = first;
    while (entry && !HasKey(entry, key)) previous = std::exchange(entry, entry->next);
    if (!entry) return 0;
    if (!previous && !entry->next) {
        DropIndex(table);
        FreeText(entry->key);
        *entry = HashEntry{};
        return 1;
    }
    if (table->index) RemoveFromIndex(*table->index, entry, previous);
    if (!previous) {
        // The old head and its key are not freed: whoever holds a key of this table may be holding this one.
        first = entry->next;
        return 1;
    }
    previous->next = entry->next;
    FreeText(entry->key);
    delete entry;
    return 1;
}

std::int32_t CountHashKeys(const HashTable* table) {
    std::int32_t count = 0;
    for (std::int32_t i = 0; i < table->size; ++i) {
        for (const HashEntry* entry = table->buckets[i]; entry; entry = entry->next) count += entry->key ? 1 : 0;
    }
    return count;
}

std::unique_ptr<const char16_t* []> GetHashKeys(const HashTable* table) {
    auto keys = std::make_unique<const char16_t*[]>(static_cast<std::size_t>(CountHashKeys(table)) + 1);
    std::size_t count = 0;
    for (std::int32_t i = 0; i < table->size; ++i) {
        for (const HashEntry* entry = table->buckets[i]; entry; entry = entry->next) {
            if (entry->key) keys[count++] = entry->key;
        }
    }
    return keys;
}

int MergeHashTable(const HashTable* source, HashTable* dest) {
    if (!source || !dest) return 0;
    for (std::int32_t i = 0; i < source->size; ++i) {
        for (const HashEntry* entry = source->buckets[i]; entry; entry = entry->next) {
            if (entry->key && GetHashValue(dest, entry->key) == 0)
                PutHashValue(dest, entry->key, entry->value, entry->type);
        }
    }
    return 1;
}

void FreeHashTable(HashTable* table) { FreeTable(table, FreeTextOf); }

void FreeAllHashTable(HashTable* table) {
    if (table) FreeTable(table, FreeValueOf);
}

HashTablePtr MakeHashTable() {
    HashTable* table = new (std::nothrow) HashTable{};
    if (table && !InitHashTable(table, 1)) {
        delete table;
        table = nullptr;
    }
    return HashTablePtr(table);
}

int PutHashTable(HashTable* table, std::u16string_view key, HashTablePtr value) {
    return PutOwned(table, key, std::move(value), ValueType::table);
}

int PutHashVector(HashTable* table, std::u16string_view key, VectorPtr value) {
    return PutOwned(table, key, std::move(value), ValueType::vector);
}

}  // namespace kv
