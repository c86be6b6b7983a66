#include "foundation/resource_lock.h"

#include <atomic>
#include <mutex>
#include <new>

#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/threads.h"

// The routines that the log rotation goes through write no "Inside" line: a line may start a rotation, which would come
// back here forever.
namespace kv {

namespace {

constexpr std::uint32_t lostLockAge = 300;  // seconds; the purge takes an older lock to be lost

std::once_flag mutexMade;
std::atomic<platform::MutexHandle> gv_lockTableMutex{0};
ResourceLockEntry* lockTable = nullptr;     // new entries at the tail
ResourceLockEntry* spareEntries = nullptr;  // for the next locks; with the table's, as many as were ever held at once
std::atomic<int> lockBackoff{0};

/// Holds gv_lockTableMutex; nothing else is called while it is held.
class TableGuard {
  public:
    TableGuard() {
        if (gv_lockTableMutex == 0) InitMutex();
        platform::Threads().WaitForMutex(gv_lockTableMutex);
    }
    ~TableGuard() { platform::Threads().ReleaseMutex(gv_lockTableMutex); }
    TableGuard(const TableGuard&) = delete;
    TableGuard& operator=(const TableGuard&) = delete;
};

/// The link that points to the entry of a key, or the null link at the end of the table.
ResourceLockEntry** FindLink(const void* resource) {
    ResourceLockEntry** link = &lockTable;
    while (*link && (*link)->resource != resource) link = &(*link)->next;
    return link;
}

void RemoveAt(ResourceLockEntry** link) {
    ResourceLockEntry* entry = *link;
    *link = entry->next;
    entry->next = spareEntries;
    spareEntries = entry;
}

/// An entry to use; null when memory ran out.
ResourceLockEntry* TakeEntry() {
    ResourceLockEntry* entry = spareEntries;
    if (!entry) return new (std::nothrow) ResourceLockEntry{};
    spareEntries = entry->next;
    return entry;
}

std::uint32_t UpTimeNow() { return static_cast<std::uint32_t>(platform::Clock().GetTickCount64() / 1000); }

int TryLock(const void* resource) {
    ResourceLockEntry** link = FindLink(resource);
    if (*link) return lockBusy;
    *link = TakeEntry();
    if (!*link) return lockBusy;
    **link = {resource, 0, UpTimeNow(), nullptr};
    return lockAcquired;
}

int Release(const void* resource) {
    ResourceLockEntry** link = FindLink(resource);
    if (!*link) return lockNotHeld;
    RemoveAt(link);
    return lockReleased;
}

void Purge() {
    const std::uint32_t now = UpTimeNow();
    for (ResourceLockEntry** link = &lockTable; *link;) {
        if ((*link)->lockTime + lostLockAge < now)
            RemoveAt(link);
        else
            link = &(*link)->next;
    }
}

}  // namespace

void InitMutex() {
    std::call_once(mutexMade, [] { gv_lockTableMutex = platform::Threads().CreateMutexW(); });
}

void InitResourceLockTable() {
    const TableGuard guard;
    while (lockTable) RemoveAt(&lockTable);
}

int ResourceLockOp_MSP(const void* resource, LockOperation operation) {
    const TableGuard guard;
    switch (operation) {
        case LockOperation::lock:
            return TryLock(resource);
        case LockOperation::release:
            return Release(resource);
        case LockOperation::purge:
            Purge();
            break;
    }
    return lockAcquired;
}

void SynchronizeResource_MSP(const void* resource) {
    while (ResourceLockOp_MSP(resource, LockOperation::lock) == lockBusy)
        SleepMicroseconds(static_cast<std::uint32_t>(NextLockBackoff()));
}

void UnsynchronizeResource_MSP(const void* resource) {
    if (ResourceLockOp_MSP(resource, LockOperation::release) == lockNotHeld) Log1("Alert! something went wrong...\n");
}

int IsResourceLocked_MSP(const void* resource) {
    const TableGuard guard;
    return *FindLink(resource) ? 1 : 2;
}

int TimedSynchronizeResource_MSP(const void* resource, std::uint32_t milliseconds) {
    if (ResourceLockOp_MSP(resource, LockOperation::lock) == lockAcquired) return -1;
    if (milliseconds == 0) return 1;
    platform::Clock().Sleep(milliseconds);
    return ResourceLockOp_MSP(resource, LockOperation::lock) == lockAcquired ? -1 : 1;
}

void CleanResourceLockTable_MSP() {
    Log3("\t@@@@@ Inside CleanResourceLockTable_MSP() @@@@@ \n");
    ResourceLockOp_MSP(nullptr, LockOperation::purge);
}

int NextLockBackoff() {
    const int current = lockBackoff.load(std::memory_order_relaxed);
    const int next = (current + 10) % 100 == 0 ? 10 : current + 10;
    lockBackoff.store(next, std::memory_order_relaxed);
    return next;
}

void SleepMicroseconds(std::uint32_t count) { platform::Clock().Sleep(count / 1000); }

}  // namespace kv
