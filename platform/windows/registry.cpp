// The registry that the system itself keeps, in the view of the program's own width. A handle of ours stands for an
// open key of the system's and for what RegNotifyChangeKeyValue needs between two calls.
//
// An event that belongs to the open key reports changes. When the thread that asked for it ends, the system forgets the
// request and sets the event: a wait by another thread returns early, and misses nothing.
#include "platform/registry.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/backend.h"
#include "platform/guarded.h"
#include "platform/owned_handle.h"
#include "platform/registry_names.h"
#include "platform/windows/system_handle.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

constexpr std::size_t levelsInOneCall = 32;  // as many as the system makes at once
constexpr int maximumListings = 10;          // of a key that changes while it is listed

constexpr DWORD changesOfInterest = REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET;

using SystemKey = std::unique_ptr<std::remove_pointer_t<HKEY>, ReleasedBy<::RegCloseKey>>;

struct OpenKey {
    SystemKey key;
    std::mutex waiting;    // held by the thread that waits for a change
    SystemHandle changed;  // set at the next change; null until the first RegNotifyChangeKeyValue
};

struct Store {
    std::mutex mutex;  // guards all below
    std::map<RegistryKey, std::shared_ptr<OpenKey>> keys;
    RegistryKey lastHandle = 0;
};

/// The system's calls for the registry give their errors as signed numbers.
Error ErrorOf(LSTATUS status) { return static_cast<Error>(status); }

REGSAM RightsOf(RegistryAccess access) {
    switch (access) {
        case RegistryAccess::queryValue:
            return KEY_QUERY_VALUE;
        case RegistryAccess::read:
            return KEY_READ;
        default:
            return KEY_ALL_ACCESS;
    }
}

HKEY Root() { return HKEY_LOCAL_MACHINE; }

Error CheckPath(RootKey root, std::u16string_view subKey) {
    if (root != RootKey::localMachine) return error::invalidHandle;
    return IsRegistryKeyPath(subKey) ? error::success : error::invalidName;
}

/// Other programs' values may have control characters in their names; only a zero cannot be passed to the system.
bool CanNameValue(std::u16string_view name) {
    return name.size() <= maximumValueNameLength && name.find(u'\0') == std::u16string_view::npos;
}

RegistryKey NewHandle(Store& store, SystemKey key) {
    const auto open = std::make_shared<OpenKey>();
    open->key = std::move(key);
    const std::lock_guard guard(store.mutex);
    store.keys.emplace(++store.lastHandle, open);
    return store.lastHandle;
}

/// Runs an operation on an open key, which stays open until it is done.
template <class Operation>
Error WithKey(Store& store, RegistryKey handle, Operation&& operation) {
    std::shared_ptr<OpenKey> open;
    {
        const std::lock_guard guard(store.mutex);
        const auto found = store.keys.find(handle);
        if (found == store.keys.end()) return error::invalidHandle;
        open = found->second;
    }
    return operation(*open);
}

Error OpenKeyAt(Store& store, RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key) {
    key = 0;
    if (const Error refused = CheckPath(root, subKey)) return refused;
    HKEY opened = nullptr;
    const Error failure = ErrorOf(::RegOpenKeyExW(Root(), WideOf(subKey).c_str(), 0, RightsOf(access), &opened));
    if (failure == error::success) key = NewHandle(store, SystemKey(opened));
    return failure;
}

Error CreateBelow(HKEY parent, std::u16string_view subKey, REGSAM rights, SystemKey& key,
                  RegistryDisposition& disposition) {
    HKEY made = nullptr;
    DWORD kind = REG_OPENED_EXISTING_KEY;
    const Error failure = ErrorOf(::RegCreateKeyExW(parent, WideOf(subKey).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                                    rights, nullptr, &made, &kind));
    if (failure != error::success) return failure;
    key.reset(made);
    disposition = static_cast<RegistryDisposition>(kind);
    return error::success;
}

/// Takes as many levels off a path as are made in one call.
std::u16string_view TakeLevels(std::u16string_view& path) {
    const std::u16string_view whole = path;
    for (std::size_t level = 0; level < levelsInOneCall && !path.empty(); ++level) TakeKeyName(path);
    return path.empty() ? whole : whole.substr(0, whole.size() - path.size() - 1);
}

Error CreateKeyAt(Store& store, RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key,
                  RegistryDisposition& disposition) {
    key = 0;
    disposition = RegistryDisposition::opened;
    if (const Error refused = CheckPath(root, subKey)) return refused;
    SystemKey parent;
    SystemKey made;
    do {
        const std::u16string_view levels = TakeLevels(subKey);
        const REGSAM rights = subKey.empty() ? RightsOf(access) : REGSAM{KEY_CREATE_SUB_KEY};
        const Error failure = CreateBelow(parent ? parent.get() : Root(), levels, rights, made, disposition);
        if (failure != error::success) return failure;
        parent = std::move(made);
    } while (!subKey.empty());
    key = NewHandle(store, std::move(parent));
    return error::success;
}

Error CloseKey(Store& store, RegistryKey key) {
    const std::lock_guard guard(store.mutex);
    return store.keys.erase(key) == 1 ? error::success : error::invalidHandle;
}

Error QueryValue(Store& store, RegistryKey key, std::u16string_view name, RegistryType* type, std::byte* data,
                 std::size_t& size) {
    if (!CanNameValue(name)) return error::fileNotFound;
    return WithKey(store, key, [&](OpenKey& open) {
        DWORD kind = REG_NONE;
        DWORD bytes = static_cast<DWORD>(std::min<std::size_t>(size, MAXDWORD));
        const Error result = ErrorOf(::RegQueryValueExW(open.key.get(), WideOf(name).c_str(), nullptr, &kind,
                                                        reinterpret_cast<BYTE*>(data), &bytes));
        if (result != error::success && result != error::moreData) return result;
        if (type) *type = static_cast<RegistryType>(kind);
        size = bytes;
        return result;
    });
}

/// The system looks past the end of a text without a terminator, and also stores what looks like one there. Something
/// else follows the bytes here, so that they are kept as they are.
Error SetValue(Store& store, RegistryKey key, std::u16string_view name, RegistryType type, const std::byte* data,
               std::size_t size) {
    if (!IsRegistryValueName(name)) return error::invalidName;
    if (size > maximumValueBytes) return error::invalidParameter;
    std::vector<std::byte> guarded(data, data + size);
    guarded.resize(size + sizeof(wchar_t), std::byte{0xFF});
    return WithKey(store, key, [&](OpenKey& open) {
        return ErrorOf(::RegSetValueExW(open.key.get(), WideOf(name).c_str(), 0, static_cast<DWORD>(type),
                                        reinterpret_cast<const BYTE*>(guarded.data()), static_cast<DWORD>(size)));
    });
}

Error DeleteValue(Store& store, RegistryKey key, std::u16string_view name) {
    if (!CanNameValue(name)) return error::fileNotFound;
    return WithKey(store, key,
                   [&](OpenKey& open) { return ErrorOf(::RegDeleteValueW(open.key.get(), WideOf(name).c_str())); });
}

/// One name by its place in the key; noMoreItems past the last.
using NameAt = Error (*)(HKEY key, DWORD index, wchar_t* name, DWORD* length);

Error SubkeyNameAt(HKEY key, DWORD index, wchar_t* name, DWORD* length) {
    return ErrorOf(::RegEnumKeyExW(key, index, name, length, nullptr, nullptr, nullptr, nullptr));
}

Error ValueNameAt(HKEY key, DWORD index, wchar_t* name, DWORD* length) {
    return ErrorOf(::RegEnumValueW(key, index, name, length, nullptr, nullptr, nullptr, nullptr));
}

Error LastWriteTime(HKEY key, std::uint64_t& time) {
    FILETIME written{};
    const Error result = ErrorOf(::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr, &written));
    time = (std::uint64_t{written.dwHighDateTime} << 32) | written.dwLowDateTime;
    return result;
}

Error ListOnce(HKEY key, NameAt nameAt, std::vector<std::u16string>& names) {
    names.clear();
    std::vector<wchar_t> name(maximumValueNameLength + 1);
    while (true) {
        DWORD length = static_cast<DWORD>(name.size());
        const Error result = nameAt(key, static_cast<DWORD>(names.size()), name.data(), &length);
        if (result == error::noMoreItems) return error::success;
        if (result != error::success) return result;
        names.push_back(Utf16FromWide({name.data(), length}));
    }
}

bool ComesBefore(const std::u16string& left, const std::u16string& right) {
    return ::CompareStringOrdinal(WideOf(left).c_str(), -1, WideOf(right).c_str(), -1, TRUE) == CSTR_LESS_THAN;
}

/// The names move while the key changes, so it is listed again until it has not changed meanwhile.
Error ListNames(Store& store, RegistryKey key, NameAt nameAt, std::vector<std::u16string>& names) {
    names.clear();
    return WithKey(store, key, [&](OpenKey& open) -> Error {
        std::uint64_t before = 0;
        std::uint64_t after = 0;
        if (const Error failure = LastWriteTime(open.key.get(), after)) return failure;
        int listings = 0;
        do {
            before = after;
            if (const Error failure = ListOnce(open.key.get(), nameAt, names)) return failure;
            if (const Error failure = LastWriteTime(open.key.get(), after)) return failure;
        } while (before != after && ++listings < maximumListings);
        std::sort(names.begin(), names.end(), ComesBefore);
        return error::success;
    });
}

Error DeleteTree(Store&, RootKey root, std::u16string_view subKey) {
    if (root != RootKey::localMachine) return error::invalidHandle;
    if (subKey.empty()) return error::accessDenied;
    if (const Error refused = CheckPath(root, subKey)) return refused;
    return ErrorOf(::RegDeleteTreeW(Root(), WideOf(subKey).c_str()));
}

/// Has the event set at the next change in the key or below it. After a failure the next request is a first one again.
Error AskForNextChange(OpenKey& open) {
    if (!open.changed) open.changed = SystemHandle(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!open.changed) return LastError();
    const Error failure =
        ErrorOf(::RegNotifyChangeKeyValue(open.key.get(), TRUE, changesOfInterest, open.changed.get(), TRUE));
    if (failure != error::success) open.changed.Close();
    return failure;
}

/// Not every system sets the event when the key itself is deleted: keyDeleted then, else the answer given.
Error StillThere(HKEY key, Error answer) {
    std::uint64_t ignored = 0;
    const Error failure = LastWriteTime(key, ignored);
    return failure == error::success ? answer : failure;
}

/// Asks for the next change before this one is reported, so that nothing is missed while the caller reads.
Error WaitForChange(Store& store, RegistryKey key, std::uint32_t milliseconds) {
    return WithKey(store, key, [milliseconds](OpenKey& open) -> Error {
        const std::lock_guard guard(open.waiting);
        if (!open.changed) return AskForNextChange(open);
        switch (::WaitForSingleObject(open.changed.get(), milliseconds)) {
            case WAIT_OBJECT_0:
                return AskForNextChange(open);
            case WAIT_TIMEOUT:
                return StillThere(open.key.get(), error::waitTimeout);
            default:
                return LastError();
        }
    });
}

}  // namespace

RegistryOperations WindowsRegistry() {
    const auto shared = std::make_shared<Store>();
    const auto bound = [shared](auto routine) {
        return Guarded([shared, routine](auto&&... arguments) {
            return routine(*shared, std::forward<decltype(arguments)>(arguments)...);
        });
    };
    const auto list = [](NameAt nameAt) {
        return [nameAt](Store& store, RegistryKey key, auto& names) { return ListNames(store, key, nameAt, names); };
    };
    return {
        .RegOpenKeyExW = bound(OpenKeyAt),
        .RegQueryValueExW = bound(QueryValue),
        .RegCreateKeyExW = bound(CreateKeyAt),
        .RegSetValueExW = bound(SetValue),
        .RegCloseKey = bound(CloseKey),
        .RegEnumKeyExW = bound(list(SubkeyNameAt)),
        .RegEnumValueW = bound(list(ValueNameAt)),
        .RegDeleteValueW = bound(DeleteValue),
        .RegDeleteTreeW = bound(DeleteTree),
        .RegNotifyChangeKeyValue = bound(WaitForChange),
    };
}

void InstallRegistry() { CurrentOperations<RegistryOperations>() = WindowsRegistry(); }

}  // namespace platform
