#include <string>
#include <utility>
#include <variant>

#include "platform/backend.h"
#include "platform/guarded.h"
#include "platform/utf.h"
#include "platform/windows/com_variant.h"
#include "platform/windows/wmi_source.h"

// After the system's main header, which they need.
#include <objbase.h>
#include <wbemcli.h>
#include <wrl/client.h>

namespace platform {

namespace {

using Microsoft::WRL::ComPtr;

constexpr std::chrono::seconds systemObjectLimit{120};

/// How long a query waits for another thread's to end. One that hangs must not hang the next.
constexpr DWORD turnLimit = 60000;

struct Enumerator {
    ComPtr<IEnumWbemClassObject> objects;
    std::chrono::milliseconds limit;
    std::vector<std::u16string> notices = {};
};
/// What a handle points to. The pointers are never null.
using Thing = std::variant<ComPtr<IWbemLocator>, ComPtr<IWbemServices>, Enumerator, ComPtr<IWbemClassObject>>;

WmiHandle WmiHandleOf(Thing thing) { return reinterpret_cast<WmiHandle>(new Thing(std::move(thing))); }

/// Null for handle 0, or for a handle to another kind of thing.
template <class Kind>
Kind* ThingOf(WmiHandle handle) {
    return handle == 0 ? nullptr : std::get_if<Kind>(reinterpret_cast<Thing*>(handle));
}

WmiStatus StatusOf(HRESULT result) { return static_cast<WmiStatus>(result); }

/// COM lets a process set its security only once while COM is up on any thread. So that each query can set it again,
/// queries take turns, and COM goes down in between.
HANDLE Turn() {
    static const HANDLE turn = ::CreateMutexW(nullptr, FALSE, nullptr);
    return turn;
}

WmiStatus CoInitializeEx() {
    if (::WaitForSingleObject(Turn(), turnLimit) == WAIT_TIMEOUT) return wmi_status::serverTooBusy;
    const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result)) ::ReleaseMutex(Turn());
    return StatusOf(result);
}

/// A query that gave up waiting for its turn has nothing to give back; ReleaseMutex then changes nothing.
void CoUninitialize() {
    ::CoUninitialize();
    ::ReleaseMutex(Turn());
}

HRESULT InitializeSystemSecurity() {
    return ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                                  nullptr, EOAC_NONE, nullptr);
}

HRESULT CreateSystemLocator(IWbemLocator** locator) {
    void* made = nullptr;
    const HRESULT result =
        ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator, &made);
    *locator = static_cast<IWbemLocator*>(made);
    return result;
}

WmiStatus CreateLocator(const WmiSource& source, WmiHandle& locator) {
    ComPtr<IWbemLocator> made;
    const HRESULT result = source.createLocator(made.GetAddressOf());
    if (made) locator = WmiHandleOf(std::move(made));
    return StatusOf(result);
}

WmiStatus ConnectServer(WmiHandle handle, std::u16string_view nameSpace, WmiHandle& services) {
    const auto* locator = ThingOf<ComPtr<IWbemLocator>>(handle);
    if (locator == nullptr) return wmi_status::invalidParameter;
    const OwnedBstr name = BstrOf(nameSpace);
    ComPtr<IWbemServices> connected;
    const HRESULT result =
        (*locator)->ConnectServer(name.get(), nullptr, nullptr, nullptr, WBEM_FLAG_CONNECT_USE_MAX_WAIT, nullptr,
                                  nullptr, connected.GetAddressOf());
    if (connected) services = WmiHandleOf(std::move(connected));
    return StatusOf(result);
}

WmiStatus CoSetProxyBlanket(WmiHandle handle) {
    const auto* services = ThingOf<ComPtr<IWbemServices>>(handle);
    if (services == nullptr) return wmi_status::invalidParameter;
    return StatusOf(::CoSetProxyBlanket(services->Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                        RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
}

/// COM keeps what a component says of its last failure for the thread that called it. What an earlier call left must
/// not pass for the next one's.
void ForgetRefusal() { ::SetErrorInfo(0, nullptr); }

WmiStatus ExecQuery(std::chrono::milliseconds limit, WmiHandle handle, std::u16string_view query,
                    WmiHandle& enumerator) {
    const auto* services = ThingOf<ComPtr<IWbemServices>>(handle);
    if (services == nullptr) return wmi_status::invalidParameter;
    const OwnedBstr language = BstrOf(u"WQL");
    const OwnedBstr text = BstrOf(query);
    ComPtr<IEnumWbemClassObject> objects;
    ForgetRefusal();
    const HRESULT result =
        (*services)->ExecQuery(language.get(), text.get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                               nullptr, objects.GetAddressOf());
    if (objects) enumerator = WmiHandleOf(Enumerator{std::move(objects), limit});
    return StatusOf(result);
}

WmiStatus GiveUp(Enumerator& enumerator) {
    enumerator.notices.push_back(WideFromUtf8("a query whose next object has not come in " +
                                              std::to_string(enumerator.limit.count()) + " ms is given up"));
    return wmi_status::timedOut;
}

WmiStatus Next(WmiHandle handle, WmiHandle& object, std::uint32_t& count) {
    count = 0;
    auto* enumerator = ThingOf<Enumerator>(handle);
    if (enumerator == nullptr) return wmi_status::invalidParameter;
    ComPtr<IWbemClassObject> next;
    ULONG returned = 0;
    ForgetRefusal();
    const HRESULT result =
        enumerator->objects->Next(static_cast<LONG>(enumerator->limit.count()), 1, next.GetAddressOf(), &returned);
    if (result == WBEM_S_TIMEDOUT) return GiveUp(*enumerator);
    if (next) {
        object = WmiHandleOf(std::move(next));
        count = returned;
    }
    return StatusOf(result);
}

WmiStatus BeginEnumeration(WmiHandle handle) {
    const auto* object = ThingOf<ComPtr<IWbemClassObject>>(handle);
    if (object == nullptr) return wmi_status::invalidParameter;
    return StatusOf((*object)->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY));
}

WmiStatus NextProperty(WmiHandle handle, std::u16string& name, Variant& value) {
    const auto* object = ThingOf<ComPtr<IWbemClassObject>>(handle);
    if (object == nullptr) return wmi_status::invalidParameter;
    BSTR systemName = nullptr;
    OwnedVariant systemValue;
    CIMTYPE declared = 0;
    const HRESULT result = (*object)->Next(0, &systemName, &systemValue.value, &declared, nullptr);
    const OwnedBstr owned(systemName);
    if (result == WBEM_S_NO_ERROR) {
        name = TextOfBstr(systemName);
        value = VariantOf(systemValue.value);
        value.declared = static_cast<CimType>(declared);
    }
    return StatusOf(result);
}

WmiStatus EndEnumeration(WmiHandle handle) {
    const auto* object = ThingOf<ComPtr<IWbemClassObject>>(handle);
    return object == nullptr ? wmi_status::invalidParameter : StatusOf((*object)->EndEnumeration());
}

void Release(WmiHandle handle) { delete reinterpret_cast<Thing*>(handle); }

std::vector<std::u16string> TakeNotices(WmiHandle handle) {
    auto* enumerator = ThingOf<Enumerator>(handle);
    return enumerator == nullptr ? std::vector<std::u16string>() : std::exchange(enumerator->notices, {});
}

std::u16string TakeRefusal(WmiHandle) {
    ComPtr<IErrorInfo> information;
    if (::GetErrorInfo(0, information.GetAddressOf()) != S_OK) return {};
    BSTR description = nullptr;
    const HRESULT result = information->GetDescription(&description);
    const OwnedBstr owned(description);
    return SUCCEEDED(result) ? TextOfBstr(description) : std::u16string();
}

}  // namespace

WmiSource SystemWmi() {
    return {.initializeSecurity = InitializeSystemSecurity,
            .createLocator = CreateSystemLocator,
            .objectLimit = systemObjectLimit};
}

WmiOperations WmiFrom(const WmiSource& source) {
    return {
        .CoInitializeEx = CoInitializeEx,
        .CoUninitialize = CoUninitialize,
        .CoInitializeSecurity = [source] { return StatusOf(source.initializeSecurity()); },
        .CoCreateInstance =
            Guarded([source](WmiHandle& locator) { return CreateLocator(source, locator); }, wmiResults),
        .ConnectServer = Guarded(ConnectServer, wmiResults),
        .CoSetProxyBlanket = CoSetProxyBlanket,
        .ExecQuery =
            Guarded([limit = source.objectLimit](WmiHandle services, std::u16string_view query,
                                                 WmiHandle& to) { return ExecQuery(limit, services, query, to); },
                    wmiResults),
        .JudgeQuery =
            [](WmiHandle, std::u16string_view, bool& isJudged) {
                isJudged = false;
                return wmi_status::ok;
            },
        .Next = Guarded(Next, wmiResults),
        .BeginEnumeration = BeginEnumeration,
        .NextProperty = Guarded(NextProperty, wmiResults),
        .EndEnumeration = EndEnumeration,
        .Release = Release,
        .TakeNotices = TakeNotices,
        .TakeRefusal = TakeRefusal,
    };
}

WmiOperations WindowsWmi() { return WmiFrom(SystemWmi()); }

void InstallWmi() { CurrentOperations<WmiOperations>() = WindowsWmi(); }

}  // namespace platform
