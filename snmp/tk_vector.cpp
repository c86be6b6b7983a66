#include "snmp/tk_vector.h"

#include <atomic>

#include "foundation/resource_lock.h"
#include "platform/clock.h"
#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

class VectorLock {
  public:
    explicit VectorLock(const TkVector* vector) : vector_(vector) { SynchronizeResource(vector_); }
    ~VectorLock() { UnsynchronizeResource(vector_); }
    VectorLock(const VectorLock&) = delete;
    VectorLock& operator=(const VectorLock&) = delete;

  private:
    const TkVector* vector_;
};

TkVectorNode** Step(TkVectorNode** link, std::int32_t steps) {
    for (; steps > 0; --steps) link = &(*link)->next;
    return link;
}

/// The link in which a node belongs by the list's order, or null when the list holds an equal one.
TkVectorNode** FindPlace(TkVector* vector, const TkVectorNode* node) {
    TkVectorNode** link = &vector->head;
    for (std::int32_t span = vector->count; span > 0;) {
        const std::int32_t half = span / 2;
        TkVectorNode** middle = Step(link, half);
        const std::int8_t order = vector->compare(*middle, node);
        if (order == 0) return nullptr;
        if (order < 0) {
            link = &(*middle)->next;
            span -= half + 1;
        } else {
            span = half;
        }
    }
    return link;
}

/// The tail of an empty list is no node.
TkVectorNode** EndOf(TkVector* vector) { return vector->head ? &vector->tail->next : &vector->head; }

/// Milliseconds: 10, 20, ... 90, 10, ... over all that wait.
std::uint32_t NextWait() {
    static std::atomic<std::uint32_t> waits{0};
    return (waits.fetch_add(1, std::memory_order_relaxed) % 9 + 1) * 10;
}

}  // namespace

void InitVector(TkVector* vector, TkVectorComparator compare) { *vector = {nullptr, 0, nullptr, compare}; }

void FreeVector(TkVector* vector) {
    const VectorLock lock(vector);
    while (TkVectorNode* node = vector->head) {
        vector->head = node->next;
        delete node;
    }
    vector->count = 0;
}

int AddElement(TkVector* vector, TkVectorNode* node) {
    const VectorLock lock(vector);
    TkVectorNode** link = vector->compare ? FindPlace(vector, node) : EndOf(vector);
    if (!link) return 0;
    node->next = *link;
    *link = node;
    if (!node->next) vector->tail = node;
    ++vector->count;
    return 1;
}

TkVectorNode* ElementAt(TkVector* vector, std::int32_t index) {
    const VectorLock lock(vector);
    return GetNthElement(vector, index, vector->head);
}

TkVectorNode* GetNthElement(const TkVector* vector, std::int32_t n, TkVectorNode* start) {
    if (n < 0 || n >= vector->count) return nullptr;
    for (; n > 0 && start; --n) start = start->next;
    return start;
}

void SynchronizeResource(const void* object) {
    while (ResourceLockOp_MSP(object, LockOperation::lock) == lockBusy) platform::Clock().Sleep(NextWait());
}

void UnsynchronizeResource(const void* object) {
    if (ResourceLockOp_MSP(object, LockOperation::release) == lockNotHeld) TKLOG(1, "Alert! something went wrong...\n");
}

}  // namespace kv::snmp
