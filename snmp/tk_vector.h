// The engine's own list. It owns its nodes and not what they hold.
//
// FreeVector, AddElement and ElementAt lock the list by its address (SynchronizeResource); the lock is not re-entrant.
#pragma once

#include <cstdint>

namespace kv::snmp {

struct TkVectorNode {
    void* data;
    TkVectorNode* next;
};

/// Order of two nodes: negative, 0 or positive. No list of the engine has one.
using TkVectorComparator = std::int8_t (*)(const TkVectorNode* a, const TkVectorNode* b);

struct TkVector {
    TkVectorNode* head;
    std::int32_t count;
    TkVectorNode* tail;          // valid while there is a head
    TkVectorComparator compare;  // kept, not asked: elements stay in order of arrival
};

void InitVector(TkVector* vector, TkVectorComparator compare);

/// Frees the nodes and leaves an empty list, whose tail is what it was.
void FreeVector(TkVector* vector);

/// Appends a node that the caller made with `new TkVectorNode{}`, and takes it over; 1.
int AddElement(TkVector* vector, TkVectorNode* node);

/// The node at a zero-based index, or null. Linear.
TkVectorNode* ElementAt(TkVector* vector, std::int32_t index);

/// The n-th node from start (0 is start), or null. Takes no lock.
TkVectorNode* GetNthElement(const TkVector* vector, std::int32_t n, TkVectorNode* start);

/// Returns holding the lock of an object, in the agent's table of locks; sleeps 10 to 90 milliseconds while it is held.
/// A thread that locks an object twice waits for
/// ever.
void SynchronizeResource(const void* object);
void UnsynchronizeResource(const void* object);

}  // namespace kv::snmp
