#include "snmp/tk_vector.h"

#include "snmp/object_lock.h"

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

/// Puts a node behind another one, or at the head when that is null. The tail of an empty list is not a node.
void LinkBehind(TkVector& vector, TkVectorNode* before, TkVectorNode* node) {
    TkVectorNode*& link = before ? before->next : vector.head;
    node->next = link;
    link = node;
    if (!node->next) vector.tail = node;
    ++vector.count;
}

TkVectorNode* LastNode(const TkVector& vector) { return vector.head ? vector.tail : nullptr; }

/// Finds the node that another one belongs behind, null for the head; false when there is an equal one. Halves what is
/// left to look at, and steps along the list to its middle.
bool FindPlace(const TkVector& vector, const TkVectorNode* node, TkVectorNode*& before) {
    before = nullptr;
    for (std::int32_t left = vector.count; left > 0;) {
        const std::int32_t half = left / 2;
        TkVectorNode* middle = GetNthElement(&vector, half, before ? before->next : vector.head);
        const std::int8_t order = vector.compare(node, middle);
        if (order == 0) return false;
        if (order > 0) before = middle;
        left = order > 0 ? left - half - 1 : half;
    }
    return true;
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
    TkVectorNode* before = LastNode(*vector);
    if (vector->compare && !FindPlace(*vector, node, before)) return 0;
    LinkBehind(*vector, before, node);
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

}  // namespace kv::snmp
