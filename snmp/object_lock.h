// The engine's way to the agent's one table of locked addresses (foundation/resource_lock.h, with its results): an
// object is locked while its address stands in the table. A lock has no owner.
#pragma once

#include "foundation/resource_lock.h"

namespace kv::snmp {

/// Returns holding the lock of an object; sleeps 10 to 90 milliseconds, in turn for all waiters, while it is held. A
/// thread that locks an object twice waits forever.
void SynchronizeResource(const void* object);

/// Gives a lock back; one that is not held leaves a line at level 1.
void UnsynchronizeResource(const void* object);

/// One operation, under the table's mutex: the result of the three below, lockAcquired for the purge.
int HandleResource(const void* object, LockOperation operation);

/// lockAcquired, or lockBusy when it is locked or memory ran out.
int SynchronizeObject(const void* object);

/// lockReleased, or lockNotHeld.
int UnsynchronizeObject(const void* object);

/// Drops the locks older than 300 seconds. Nothing in the engine calls it: a lost lock stays.
void CleanResourceLockTable();

}  // namespace kv::snmp
