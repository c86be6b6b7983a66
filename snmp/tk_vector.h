// The engine's own list. It owns its nodes and not what they hold.
//
// FreeVector, AddElement and ElementAt lock the list by its address (snmp/object_lock.h); the lock is not re-entrant.
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

void InitVector(TkVector* vector, TkVectorComparator compare);

/// Frees the nodes and leaves an empty list, whose tail is what it was.
void FreeVector(TkVector* vector);

/// Takes over a node that the caller made with `new TkVectorNode{}`: at the end, or where it belongs in a list that
/// has an order. 1; 0 when an equal element is there, and the node stays the caller's.
int AddElement(TkVector* vector, TkVectorNode* node);

/// The node at a zero-based index, or null. Linear.
TkVectorNode* ElementAt(TkVector* vector, std::int32_t index);

/// The n-th node from start (0 is start), or null. Takes no lock.
TkVectorNode* GetNthElement(const TkVector* vector, std::int32_t n, TkVectorNode* start);

}  // namespace kv::snmp
