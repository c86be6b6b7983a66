// Queries in WQL about this computer: the COM operations of one query, in the order in which they are called. A locator
// leads to the services of a namespace, these to an enumerator, and that to one object after the other. Each is given
// back by Release, the last one first.
//
// Results are WMI status codes (platform/wmi_status.h). Different queries may run on different threads at once; what
// one query obtains belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cim_type.h"
#include "platform/owned_handle.h"
#include "platform/seam.h"
#include "platform/wmi_status.h"

namespace platform {

/// A locator, services, an enumerator or an object, or 0.
using WmiHandle = std::uintptr_t;

/// Types of a property's value, by their numbers in Windows. An array has arrayFlag and the type of its elements; a
/// type that has no name here, such as that of an object, has its number.
enum class VariantType : std::uint16_t {
    empty = 0,
    null = 1,
    i2 = 2,
    i4 = 3,
    r4 = 4,
    r8 = 5,
    date = 7,
    bstr = 8,
    boolean = 11,
    ui1 = 17,
    arrayFlag = 0x2000,
};

/// One property's value.
struct Variant {
    VariantType type = VariantType::empty;
    std::int32_t integer = 0;             // i2, i4, ui1, and boolean: 0 is false
    double real = 0;                      // r4, r8
    std::u16string text;                  // bstr
    std::vector<Variant> elements = {};   // of an array
    CimType declared = CimType::unknown;  // the property's type, also of NULL: it tells signed from unsigned numbers,
                                          // and what is a text only because its type has no VARIANT of its own
};

struct WmiOperations {
    /// Starts COM on the calling thread; after a success CoUninitialize is due.
    std::function<WmiStatus()> CoInitializeEx;
    std::function<void()> CoUninitialize;

    /// Sets the security of the process, again for each query.
    std::function<WmiStatus()> CoInitializeSecurity;

    /// Makes an IWbemLocator.
    std::function<WmiStatus(WmiHandle& locator)> CoCreateInstance;

    std::function<WmiStatus(WmiHandle locator, std::u16string_view nameSpace, WmiHandle& services)> ConnectServer;
    std::function<WmiStatus(WmiHandle services)> CoSetProxyBlanket;

    /// Starts a query, forward only, and returns at once. A query that is wrong may be refused here or at Next.
    std::function<WmiStatus(WmiHandle services, std::u16string_view query, WmiHandle& enumerator)> ExecQuery;

    /// What ExecQuery and Next would find wrong with a query, found without running it: ok, or the status with which
    /// they refuse it. isJudged is false where only a run tells.
    std::function<WmiStatus(WmiHandle services, std::u16string_view query, bool& isJudged)> JudgeQuery;

    /// The next object: ok and count 1, or else no object. Waits as long as it takes, which every backend bounds for
    /// itself.
    std::function<WmiStatus(WmiHandle enumerator, WmiHandle& object, std::uint32_t& count)> Next;

    /// Starts over the properties of an object, the system's own left out.
    std::function<WmiStatus(WmiHandle object)> BeginEnumeration;

    /// The next property: ok, or anything else at the end.
    std::function<WmiStatus(WmiHandle object, std::u16string& name, Variant& value)> NextProperty;
    std::function<WmiStatus(WmiHandle object)> EndEnumeration;

    std::function<void(WmiHandle handle)> Release;

    /// What the log should say about a query so far, such as that a part of the system was left out because it does not
    /// answer. Each text is given once.
    std::function<std::vector<std::u16string>(WmiHandle enumerator)> TakeNotices;

    /// What is wrong with the query that ExecQuery, JudgeQuery or Next of these services has just refused on this
    /// thread, and where: for the log, beside the status. Given once; empty when the backend can tell no more than the
    /// status.
    std::function<std::u16string(WmiHandle services)> TakeRefusal;
};

inline const WmiOperations& Wmi() { return CurrentOperations<WmiOperations>(); }

inline void ReleaseWmiHandle(WmiHandle handle) { Wmi().Release(handle); }
using OwnedWmiHandle = OwnedHandle<WmiHandle, ReleaseWmiHandle>;

}  // namespace platform
