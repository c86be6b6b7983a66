#include "snmp/tk_vector.h"

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

/// The tail of an empty list is no node.
TkVectorNode** EndOf(TkVector* vector) { return vector->head ? &vector->tail->next : &vector->head; }

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
    node->next = nullptr;
    *EndOf(vector) = node;
    vector->tail = node;
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
    while (ResourceLockOp_MSP(object, LockOperation::lock) == lockBusy)
        platform::Clock().Sleep(static_cast<std::uint32_t>(NextLockBackoff()));
}

void UnsynchronizeResource(const void* object) {
    if (ResourceLockOp_MSP(object, LockOperation::release) == lockNotHeld) TKLOG(1, "Alert! something went wrong...\n");
}

}  // namespace kv::snmp
