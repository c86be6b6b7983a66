// The agent's one general list: singly linked, with a tail and a count. Its elements carry a type tag, so that texts,
// nested lists and nested tables can be released with everything below them by one call.
//
// Ownership: a Vector on the heap is made by MakeVector. Adding hands a node over; deleting frees the node and never
// its value; FreeAllVector frees nodes, owned values and the Vector itself.
//
// Operations marked locked hold the resource lock of the Vector's own address (foundation/resource_lock.h) while they
// run, and release it on every path. The lock is not re-entrant. Indices are zero-based. No Vector may be null except
// where it is said.
#pragma once

#include <cstdint>
#include <memory>

namespace kv {

/// What a value is, and with that, who owns it. VectorElement and HashEntry share it.
enum class ValueType : std::int32_t {
    none = 0,     // of any kind, not owned
    boolean = 1,  // in the low byte
    integer = 2,  // 32 bits
    number = 3,   // a floating-point number, cut to a 32-bit integer
    text = 4,     // owned, NUL-terminated char16_t text made by CopyText (foundation/text.h)
    vector = 5,   // Vector, freed by the FreeAll operations
    table = 6,    // HashTable, freed by the FreeAll operations
    other = 7,    // a 64-bit integer, of which the low half is kept
};

/// One machine word: a pointer or a scalar.
using Word = std::uintptr_t;

struct VectorElement {
    Word value;
    ValueType type;
    VectorElement* next;
};

/// A node outside a list. It does not own its value.
using VectorElementPtr = std::unique_ptr<VectorElement>;

/// Order of two elements. No list of the agent is sorted as it grows, so nothing asks for it yet.
using VectorComparator = int (*)(const VectorElement* element, const VectorElement* candidate);

struct Vector {
    VectorElement* head;
    std::int32_t count;
    VectorElement* tail;
    VectorComparator compare;  // kept and never called: elements stay in order of arrival
};

/// Empties the three fields, frees nothing, and stores the function that compareRef points to; compareRef may be null.
void InitVector(Vector* vector, const VectorComparator* compareRef);

/// Locked. Appends a node; always 1.
int AddElement(Vector* vector, VectorElementPtr element);

/// Locked. 1, or 0 when index is outside 0..count: the node is then freed.
int InsertElementAt(Vector* vector, VectorElementPtr element, std::int32_t index);

/// Locked. Unlinks and frees a node, known by its address. 0 when the Vector is empty; else 1, found or not.
int DeleteElement(Vector* vector, VectorElement* element);

/// Locked. 1, or 0 when index is outside 0..count-1.
int DeleteElementAt(Vector* vector, std::int32_t index);

/// Locked. The element, or null when index is out of range. Linear.
[[nodiscard]] VectorElement* ElementAt(Vector* vector, std::int32_t index);

/// The element n links after start; null when there is none, or when n is outside 0..count-1. Takes no lock: it is the
/// one walk that is safe while the lock is held.
[[nodiscard]] VectorElement* GetNthElement(const Vector* vector, std::int32_t n, VectorElement* start);

/// Locked, first source, then dest. Appends every value of source to dest in nodes of type none: dest does not own what
/// it shares. 1, or 99 when memory ran out: what was merged by then stays.
int MergeVector(Vector* dest, Vector* source);

/// Deletes the first element whose value is the given word, if there is one. Locked for the search and again for the
/// deletion, not in between.
void DeleteLCDVector(Vector* vector, Word value);

/// Locked. Frees the elements and their texts, but not nested lists and tables. The Vector itself stays, empty.
void FreeVector(Vector* vector);

/// Locked. Releases everything, nested lists and tables included, and the Vector. A null Vector is allowed.
void FreeAllVector(Vector* vector);

/// Bubble sort by the key "order" of the tables that the elements hold, 0 when a table lacks it. Each look is locked,
/// the whole is not.
void SortVectorByOrder(Vector* vector);

struct FreeAllVectorDeleter {
    void operator()(Vector* vector) const { FreeAllVector(vector); }
};

/// Owns a Vector with everything below it.
using VectorPtr = std::unique_ptr<Vector, FreeAllVectorDeleter>;

/// A new, empty Vector without comparator, or null when memory ran out.
[[nodiscard]] VectorPtr MakeVector();

/// Appends a list, which the Vector owns from then on; 1, or 0 with a log line when memory ran out: the list is then
/// freed. AppendTable (foundation/hash_table.h) does the same with a table.
int AppendVector(Vector* vector, VectorPtr list);

}  // namespace kv
