// One process-wide table of locked addresses. To lock a thing is to enter its address; whoever finds the address there
// yields and tries again until it is gone. A lock has no owner and is not re-entrant: a thread that locks what it
// already holds hangs, and any thread may release what another one took. Callable from any thread.
//
// Order: a list's lock first, then the log's, never the other way round.
#pragma once

#include <cstdint>

namespace kv {

/// Results of ResourceLockOp_MSP: the first two of a lock, the others of a release. A purge gives lockAcquired.
inline constexpr int lockAcquired = 1;
inline constexpr int lockBusy = 2;
inline constexpr int lockReleased = 4;
inline constexpr int lockNotHeld = 2;

enum class LockOperation { lock = 1, release = 2, purge = 3 };

struct ResourceLockEntry {
    const void* resource;
    std::uintptr_t reserved;  // always 0
    std::uint32_t lockTime;   // tick count at locking, in seconds
    ResourceLockEntry* next;
};

/// Makes the mutex that guards the table. Main calls it first of all; a second call changes nothing. A lock that is
/// taken earlier makes it, too.
void InitMutex();

/// Empties the table.
void InitResourceLockTable();

/// Returns holding the lock. It waits forever, also while there is no memory for the entry.
void SynchronizeResource_MSP(const void* resource);

/// Releases a lock. One that is not held leaves a log line and nothing else.
void UnsynchronizeResource_MSP(const void* resource);

/// 1 locked, 2 free.
[[nodiscard]] int IsResourceLocked_MSP(const void* resource);

/// -1 when it took the lock, at once or after one sleep of the given time; 1 when the lock is still busy.
[[nodiscard]] int TimedSynchronizeResource_MSP(const void* resource, std::uint32_t milliseconds);

/// One operation under the table's mutex. lockBusy, too, when memory ran out. A purge looks at no resource.
int ResourceLockOp_MSP(const void* resource, LockOperation operation);

/// Removes locks older than 300 seconds. Nothing in the agent calls it.
void CleanResourceLockTable_MSP();

/// The next of the values 10, 20, ... 90, 10, ...; shared by all threads.
int NextLockBackoff();

/// Sleep(count / 1000): counts below 1000 only yield.
void SleepMicroseconds(std::uint32_t count);

/// Holds a resource lock while it lives.
class ResourceLock {
  public:
    explicit ResourceLock(const void* resource) : resource_(resource) { SynchronizeResource_MSP(resource_); }
    ~ResourceLock() { UnsynchronizeResource_MSP(resource_); }
    ResourceLock(const ResourceLock&) = delete;
    ResourceLock& operator=(const ResourceLock&) = delete;

  private:
    const void* resource_;
};

}  // namespace kv
