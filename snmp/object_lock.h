// The engine's way to the agent's one table of locked addresses (foundation/resource_lock.h, which has the results): an
// object is locked while its address is in the table. A lock has no owner. Callable from any thread.
#pragma once

#include "foundation/resource_lock.h"

namespace kv::snmp {

/// Returns holding the lock of an object. While it is held, sleeps 10, 20 and so on up to 90 milliseconds, counted for
/// all waiters together. A thread that locks an object twice waits forever.
void SynchronizeResource(const void* object);

/// Releases a lock; one that is not held leaves a line at level 1.
void UnsynchronizeResource(const void* object);

/// One operation under the table's mutex: the result of one of the next two, or lockAcquired after a purge.
int HandleResource(const void* object, LockOperation operation);

/// lockAcquired, or lockBusy when it is locked or memory ran out.
int SynchronizeObject(const void* object);

/// lockReleased, or lockNotHeld.
int UnsynchronizeObject(const void* object);

/// Drops the locks older than 300 seconds. Nothing in the engine asks for it: a lost lock stays.
void CleanResourceLockTable();

}  // namespace kv::snmp
