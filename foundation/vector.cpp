#include "foundation/vector.h"

#include <new>
#include <utility>

#include "foundation/hash_table.h"
#include "foundation/log.h"
#include "foundation/resource_lock.h"
#include "foundation/text.h"

namespace kv {

namespace {

/// The link that points to the element at an index of 0..count.
VectorElement** LinkAt(Vector* vector, std::int32_t index) {
    VectorElement** link = &vector->head;
    for (std::int32_t i = 0; i < index; ++i) link = &(*link)->next;
    return link;
}

/// Links a chain of elements behind those of the list; the chain must not be empty.
void Append(Vector* vector, const Vector& chain) {
    (vector->head ? vector->tail->next : vector->head) = chain.head;
    vector->tail = chain.tail;
    vector->count += chain.count;
}

/// Unlinks and frees the element behind a link; previous is the element before it, or null.
void Unlink(Vector* vector, VectorElement** link, VectorElement* previous) {
    VectorElement* element = *link;
    *link = element->next;
    if (vector->tail == element) vector->tail = previous;
    --vector->count;
    delete element;
}

void FreeTextValue(const VectorElement* element) {
    if (element->type == ValueType::text) FreeText(reinterpret_cast<char16_t*>(element->value));
}

void FreeValue(const VectorElement* element) {
    if (element->type == ValueType::vector)
        FreeAllVector(reinterpret_cast<Vector*>(element->value));
    else if (element->type == ValueType::table)
        FreeAllHashTable(reinterpret_cast<HashTable*>(element->value));
    else
        FreeTextValue(element);
}

template <class Release>
void FreeElements(Vector* vector, Release releaseValue) {
    for (VectorElement* element = vector->head; element;) {
        VectorElement* next = element->next;
        releaseValue(element);
        delete element;
        element = next;
    }
    vector->head = nullptr;
    vector->count = 0;
}

/// Appends what an owner holds, which the list owns from then on; 0 with a line when memory ran out.
template <class Owner>
int AppendOwned(Vector* vector, Owner owner, ValueType type) {
    VectorElementPtr element(new (std::nothrow) VectorElement{reinterpret_cast<Word>(owner.get()), type, nullptr});
    if (!element) {
        Log1("\t@@@@@  Memory allocation failed @@@@@\n");
        return 0;
    }
    element->value = reinterpret_cast<Word>(owner.release());
    return AddElement(vector, std::move(element));
}

/// The order of a table in its list, by its key "order"; 0 when it lacks that key.
std::int32_t TableOrder(const VectorElement* element) {
    return static_cast<std::int32_t>(GetHashValue(reinterpret_cast<const HashTable*>(element->value), u"order"));
}

}  // namespace

void InitVector(Vector* vector, const VectorComparator* compareRef) {
    *vector = Vector{nullptr, 0, nullptr, compareRef ? *compareRef : nullptr};
}

int AddElement(Vector* vector, VectorElementPtr element) {
    const ResourceLock lock(vector);
    VectorElement* added = element.release();
    added->next = nullptr;
    Append(vector, Vector{added, 1, added, nullptr});
    return 1;
}

int InsertElementAt(Vector* vector, VectorElementPtr element, std::int32_t index) {
    Log4("\t@@@@@ Inside InsertElementAt() @@@@@ \n");
    const ResourceLock lock(vector);
    if (index < 0 || index > vector->count) return 0;
    VectorElement** link = LinkAt(vector, index);
    element->next = *link;
    if (index == vector->count) vector->tail = element.get();
    *link = element.release();
    ++vector->count;
    return 1;
}

int DeleteElement(Vector* vector, VectorElement* element) {
    Log4("\t@@@@@ Inside DeleteElement() @@@@@ \n");
    const ResourceLock lock(vector);
    if (!vector->head) return 0;
    VectorElement* previous = nullptr;
    for (VectorElement** link = &vector->head; *link; previous = *link, link = &previous->next) {
        if (*link == element) {
            Unlink(vector, link, previous);
            break;
        }
    }
    return 1;
}

int DeleteElementAt(Vector* vector, std::int32_t index) {
    Log4("\t@@@@@ Inside DeleteElementAt() @@@@@ \n");
    const ResourceLock lock(vector);
    if (index < 0 || index >= vector->count) return 0;
    VectorElement* previous = index > 0 ? *LinkAt(vector, index - 1) : nullptr;
    Unlink(vector, previous ? &previous->next : &vector->head, previous);
    return 1;
}

VectorElement* ElementAt(Vector* vector, std::int32_t index) {
    const ResourceLock lock(vector);
    return index < 0 || index >= vector->count ? nullptr : *LinkAt(vector, index);
}

VectorElement* GetNthElement(const Vector* vector, std::int32_t n, VectorElement* start) {
    Log4("\t@@@@@ Inside GetNthElement() @@@@@ \n");
    if (n < 0 || n >= vector->count) return nullptr;
    for (; start && n > 0; --n) start = start->next;
    return start;
}

int MergeVector(Vector* dest, Vector* source) {
    Log3("\t@@@@@ Inside MergeVector() @@@@@ \n");
    Vector chain{};  // filled before dest is touched: a list may be merged into itself
    bool complete = true;
    {
        const ResourceLock lock(source);
        for (const VectorElement* element = source->head; element && complete; element = element->next) {
            auto* shared = new (std::nothrow) VectorElement{element->value, ValueType::none, nullptr};
            complete = shared != nullptr;
            if (complete) Append(&chain, Vector{shared, 1, shared, nullptr});
        }
    }
    const ResourceLock lock(dest);
    if (chain.count > 0) Append(dest, chain);
    return complete ? 1 : 99;
}

void DeleteLCDVector(Vector* vector, Word value) {
    Log3("\t@@@@@ Inside DeleteLCDVector() @@@@@ \n");
    std::int32_t index = 0;
    {
        const ResourceLock lock(vector);
        const VectorElement* element = vector->head;
        for (; element && element->value != value; element = element->next) ++index;
        if (!element) return;
    }
    DeleteElementAt(vector, index);
}

void FreeVector(Vector* vector) {
    Log4("\t@@@@@ Inside FreeVector() @@@@@ \n");
    const ResourceLock lock(vector);
    FreeElements(vector, FreeTextValue);
}

void FreeAllVector(Vector* vector) {
    if (!vector) return;
    {
        const ResourceLock lock(vector);
        if (vector->count > 0) FreeElements(vector, FreeValue);
        vector->tail = nullptr;
    }
    delete vector;
}

void SortVectorByOrder(Vector* vector) {
    Log3("\t@@@@@ Inside SortVectorByOrder() @@@@@ \n");
    const std::int32_t count = vector->count;
    for (std::int32_t pass = 0; pass < count; ++pass) {
        for (std::int32_t j = 0; j < count - 1; ++j) {
            VectorElement* first = ElementAt(vector, j);
            VectorElement* second = ElementAt(vector, j + 1);
            if (!first || !second) return;
            if (TableOrder(second) < TableOrder(first)) std::swap(first->value, second->value);
        }
    }
}

VectorPtr MakeVector() { return VectorPtr(new (std::nothrow) Vector{}); }

int AppendVector(Vector* vector, VectorPtr list) { return AppendOwned(vector, std::move(list), ValueType::vector); }

int AppendTable(Vector* vector, HashTablePtr table) { return AppendOwned(vector, std::move(table), ValueType::table); }

}  // namespace kv
