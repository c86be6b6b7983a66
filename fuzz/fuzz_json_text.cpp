// Any text as a JSON document: what is read, written and read again is the same tree.
//
// The first byte picks the encoding of the rest: UTF-8 if it is even, UTF-16LE if it is odd.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "foundation/file_utils.h"
#include "jsontext/hash_json.h"
#include "platform/backend.h"
#include "platform/utf.h"

namespace {

using namespace kv;

bool SameValue(Word a, ValueType typeOfA, Word b, ValueType typeOfB);

/// A written table comes back with its members in reverse order, so they are matched by key.
bool SameTable(const HashTable* a, const HashTable* b) {
    if (CountHashKeys(a) != CountHashKeys(b)) return false;
    const HashEntry* first = a->buckets[0];
    for (const HashEntry* entry = first->key ? first : nullptr; entry; entry = entry->next) {
        const HashEntry* other = GetHashEntry(b, entry->key);
        if (!other || !SameValue(entry->value, entry->type, other->value, other->type)) return false;
    }
    return true;
}

bool SameList(const Vector* a, const Vector* b) {
    const VectorElement* other = b->head;
    for (const VectorElement* element = a->head; element; element = element->next, other = other->next) {
        if (!other || !SameValue(element->value, element->type, other->value, other->type)) return false;
    }
    return other == nullptr && a->count == b->count;
}

bool SameValue(Word a, ValueType typeOfA, Word b, ValueType typeOfB) {
    // Only the low half of a 64-bit integer is stored and written. It comes back as a 32-bit integer.
    if (typeOfA == ValueType::other) typeOfA = ValueType::integer;
    if (typeOfA != typeOfB) return false;
    switch (typeOfA) {
        case ValueType::text:
            return std::u16string_view(reinterpret_cast<const char16_t*>(a)) == reinterpret_cast<const char16_t*>(b);
        case ValueType::vector:
            return SameList(reinterpret_cast<const Vector*>(a), reinterpret_cast<const Vector*>(b));
        case ValueType::table:
            return SameTable(reinterpret_cast<const HashTable*>(a), reinterpret_cast<const HashTable*>(b));
        default:
            return a == b;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool backendInstalled = (platform::InstallBackend(), true);
    if (!backendInstalled || size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const bool isWide = data[0] % 2 == 1;
    const HashTablePtr table = MakeHashTable();
    if (!JSONTextToHash(table.get(), isWide ? TextFromUtf16LittleEndian(bytes) : platform::WideFromUtf8(bytes)).ok)
        return 0;
    const HashTablePtr again = MakeHashTable();
    if (!JSONTextToHash(again.get(), HashToJSONString(table.get())).ok) std::abort();
    if (!SameTable(table.get(), again.get())) std::abort();
    return 0;
}
