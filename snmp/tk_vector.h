// The engine's own list. It owns its nodes, but not what they hold.
//
// FreeVector, AddElement and ElementAt lock the list by its address (snmp/object_lock.h); the lock is not re-entrant.
// No list may be null.
#pragma once

#include <cstdint>

namespace kv::snmp {

struct TkVectorNode {
    void* data;
    TkVectorNode* next;
};

/// Order of two nodes: negative, 0 or positive.
using TkVectorComparator = std::int8_t (*)(const TkVectorNode* a, const TkVectorNode* b);

struct TkVector {
    TkVectorNode* head;
    std::int32_t count;
    TkVectorNode* tail;          // valid while there is a head
    TkVectorComparator compare;  // null, as in all lists of the manager: elements stay in order of arrival
};

/// Makes a list empty; frees nothing.
void InitVector(TkVector* vector, TkVectorComparator compare);

/// Frees the nodes and leaves an empty list with the tail that it had.
void FreeVector(TkVector* vector);

/// Takes over a node made with `new TkVectorNode{}` and puts it at the end, or in its place in a list that has an
/// order. 1; 0 when an equal element is there: the node then stays the caller's.
int AddElement(TkVector* vector, TkVectorNode* node);

/// The node at a zero-based index; null when there is none. Linear.
TkVectorNode* ElementAt(TkVector* vector, std::int32_t index);

/// The n-th node from start (0 is start); null when there is none. Takes no lock.
TkVectorNode* GetNthElement(const TkVector* vector, std::int32_t n, TkVectorNode* start);

}  // namespace kv::snmp
