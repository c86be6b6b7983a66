// The operations of platform/wmi.h. There is no COM to initialise, and only one namespace: ROOT\CIMV2 of this computer.
#include <chrono>
#include <memory>
#include <utility>
#include <variant>

#include "platform/backend.h"
#include "platform/guarded.h"
#include "wql/bounded_run.h"
#include "wql/object_path.h"
#include "wql/refusal.h"
#include "wql/statement.h"

namespace kv::wql {

namespace {

using platform::Guarded;
using platform::Variant;
using platform::WmiHandle;
using platform::WmiOperations;
using platform::wmiResults;

/// How long a query may take. Ten thousand processes are read in a fraction of it.
constexpr std::chrono::seconds queryLimit{30};

struct Locator {};
struct Services {
    std::u16string refusal = {};  // of the last query
};
struct Enumerator {
    BoundedRunPtr run;
};
struct Object {
    ResultObject properties;
    std::size_t next = 0;
};
/// What a handle points to.
using Thing = std::variant<Locator, Services, Enumerator, Object>;

template <class Kind>
WmiHandle NewWmiHandle(Kind thing) {
    return reinterpret_cast<WmiHandle>(new Thing(std::move(thing)));
}

/// Null for handle 0, and for a handle of another kind.
template <class Kind>
Kind* ThingOf(WmiHandle handle) {
    return handle == 0 ? nullptr : std::get_if<Kind>(reinterpret_cast<Thing*>(handle));
}

WmiStatus CoCreateInstance(WmiHandle& locator) {
    locator = NewWmiHandle(Locator{});
    return wmi_status::ok;
}

WmiStatus ConnectServer(WmiHandle locator, std::u16string_view nameSpace, WmiHandle& services) {
    if (ThingOf<Locator>(locator) == nullptr || nameSpace.empty()) return wmi_status::invalidParameter;
    const WmiStatus status = CheckNamespace(nameSpace);
    if (!IsFailure(status)) services = NewWmiHandle(Services{});
    return status;
}

/// Leaves the refusal with the services.
WmiStatus Prepare(Services& services, std::u16string_view text, PreparedStatement& prepared) {
    const WmiStatus status = PrepareStatement(text, prepared);
    if (IsFailure(status)) services.refusal = DescribeRefusal(text);
    return status;
}

WmiStatus JudgeQuery(WmiHandle services, std::u16string_view text, bool& isJudged) {
    isJudged = true;
    auto* connected = ThingOf<Services>(services);
    if (connected == nullptr) return wmi_status::invalidParameter;
    PreparedStatement prepared;
    const WmiStatus status = Prepare(*connected, text, prepared);
    if (IsFailure(status)) return status;
    return prepared.judge(
        [connected](const std::string& notice) { connected->refusal = platform::WideFromUtf8(notice); });
}

WmiStatus ExecQuery(WmiHandle services, std::u16string_view text, WmiHandle& enumerator) {
    auto* connected = ThingOf<Services>(services);
    if (connected == nullptr) return wmi_status::invalidParameter;
    PreparedStatement prepared;
    WmiStatus status = Prepare(*connected, text, prepared);
    if (IsFailure(status)) return status;
    Enumerator result;
    status = StartBoundedRun(prepared.subject, queryLimit, std::move(prepared.run), result.run);
    if (!IsFailure(status)) enumerator = NewWmiHandle(std::move(result));
    return status;
}

WmiStatus Next(WmiHandle handle, WmiHandle& object, std::uint32_t& count) {
    count = 0;
    Enumerator* enumerator = ThingOf<Enumerator>(handle);
    if (enumerator == nullptr) return wmi_status::invalidParameter;
    Object result;
    const WmiStatus status = NextObject(*enumerator->run, result.properties);
    if (status != wmi_status::ok) return status;
    object = NewWmiHandle(std::move(result));
    count = 1;
    return wmi_status::ok;
}

WmiStatus BeginEnumeration(WmiHandle handle) {
    Object* object = ThingOf<Object>(handle);
    if (object == nullptr) return wmi_status::invalidParameter;
    object->next = 0;
    return wmi_status::ok;
}

WmiStatus NextProperty(WmiHandle handle, std::u16string& name, Variant& value) {
    Object* object = ThingOf<Object>(handle);
    if (object == nullptr) return wmi_status::invalidParameter;
    if (object->next == object->properties.size()) return wmi_status::noMoreData;
    ResultProperty& property = object->properties[object->next++];
    name = property.name;
    value = property.value;
    return wmi_status::ok;
}

WmiStatus EndEnumeration(WmiHandle handle) {
    return ThingOf<Object>(handle) != nullptr ? wmi_status::ok : wmi_status::invalidParameter;
}

void Release(WmiHandle handle) {
    if (const Enumerator* enumerator = ThingOf<Enumerator>(handle)) AbandonRun(*enumerator->run);
    delete reinterpret_cast<Thing*>(handle);
}

std::vector<std::u16string> TakeQueryNotices(WmiHandle handle) {
    const Enumerator* enumerator = ThingOf<Enumerator>(handle);
    return enumerator != nullptr ? TakeNotices(*enumerator->run) : std::vector<std::u16string>();
}

std::u16string TakeRefusal(WmiHandle handle) {
    auto* services = ThingOf<Services>(handle);
    return services != nullptr ? std::exchange(services->refusal, {}) : std::u16string();
}

WmiOperations Provider() {
    return {
        .CoInitializeEx = [] { return wmi_status::ok; },
        .CoUninitialize = [] {},
        .CoInitializeSecurity = [] { return wmi_status::ok; },
        .CoCreateInstance = Guarded(CoCreateInstance, wmiResults),
        .ConnectServer = Guarded(ConnectServer, wmiResults),
        .CoSetProxyBlanket = [](WmiHandle) { return wmi_status::ok; },
        .ExecQuery = Guarded(ExecQuery, wmiResults),
        .JudgeQuery = Guarded(JudgeQuery, wmiResults),
        .Next = Guarded(Next, wmiResults),
        .BeginEnumeration = BeginEnumeration,
        .NextProperty = Guarded(NextProperty, wmiResults),
        .EndEnumeration = EndEnumeration,
        .Release = Release,
        .TakeNotices = TakeQueryNotices,
        .TakeRefusal = TakeRefusal,
    };
}

}  // namespace

}  // namespace kv::wql

void platform::InstallWmi() { CurrentOperations<WmiOperations>() = kv::wql::Provider(); }
