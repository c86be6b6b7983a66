#include "snmp/object_lock.h"

#include "platform/clock.h"
#include "snmp/toolkit_log.h"

namespace kv::snmp {

void SynchronizeResource(const void* object) {
    while (HandleResource(object, LockOperation::lock) == lockBusy)
        platform::Clock().Sleep(static_cast<std::uint32_t>(NextLockBackoff()));
}

void UnsynchronizeResource(const void* object) {
    if (HandleResource(object, LockOperation::release) == lockNotHeld) TKLOG(1, "Alert! something went wrong...\n");
}

int HandleResource(const void* object, LockOperation operation) {
    if (operation == LockOperation::lock) return SynchronizeObject(object);
    if (operation == LockOperation::release) return UnsynchronizeObject(object);
    CleanResourceLockTable();
    return lockAcquired;
}

int SynchronizeObject(const void* object) { return ResourceLockOp_MSP(object, LockOperation::lock); }

int UnsynchronizeObject(const void* object) { return ResourceLockOp_MSP(object, LockOperation::release); }

void CleanResourceLockTable() {
    TKLOG(3, "\t Inside CleanResourceLockTable() \n");
    ResourceLockOp_MSP(nullptr, LockOperation::purge);
}

}  // namespace kv::snmp
