// The registry in one SQLite file.
//
//   key    one row for each key: parent row and name; row 1 is the root, HKEY_LOCAL_MACHINE
//   value  one row for each value: key row, name, type, bytes as they were given
//
// One connection per process, guarded by a mutex. A handle counts as one to a deleted key when its key was deleted, or
// when the file that it was opened in has been replaced.
#include "platform/registry.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/guarded.h"
#include "platform/linux/linux.h"
#include "platform/linux/registry_database.h"
#include "platform/registry_names.h"
#include "platform/utf.h"

namespace platform {

namespace {

using kv::sqlite::Blob;
using kv::sqlite::Execute;
using kv::sqlite::QueryNumber;
using kv::sqlite::Statement;
using kv::sqlite::Transaction;

constexpr std::int64_t rootRow = 1;
constexpr std::uint32_t changePollMilliseconds = 200;

/// How much has happened to the registry so far. When two marks differ, something may have changed.
struct ChangeMark {
    std::int64_t otherConnections = 0;
    std::int64_t thisConnection = 0;
    bool operator==(const ChangeMark&) const = default;
};

struct OpenKey {
    std::int64_t row = 0;          // 0: the slot is free
    std::uint64_t generation = 0;  // of the connection it was opened on
    RegistryAccess access = RegistryAccess::queryValue;
    std::optional<ChangeMark> seen;  // by RegNotifyChangeKeyValue
};

struct Store {
    std::mutex mutex;  // guards all below
    RegistryDatabase database;
    std::vector<OpenKey> keys;  // a handle is the index plus 1
};

/// Runs one operation on the open connection. What SQLite reports becomes its result. A connection to a broken file is
/// given up.
template <class Operation>
Error WithConnection(Store& store, Purpose purpose, Operation&& operation) {
    Error failure = Connect(store.database, purpose);
    if (failure == error::success)
        failure = WithSqliteErrors([&] { return operation(store.database.connection.get()); });
    const bool isBroken = failure == error::databaseCorrupt || failure == error::readFault;
    if (isBroken || (failure == error::accessDenied && HasBecomeWritable(store.database))) Disconnect(store.database);
    return failure;
}

/// The row of a direct subkey; 0 when it does not exist.
std::int64_t FindSubkey(sqlite3* connection, std::int64_t parent, std::u16string_view name) {
    return QueryNumber(connection, "SELECT id FROM key WHERE parent = ? AND name = ?", parent, Utf8FromWide(name));
}

/// The row of a key; 0 when it does not exist.
std::int64_t FindKey(sqlite3* connection, std::u16string_view path) {
    std::int64_t row = rootRow;
    while (row != 0 && !path.empty()) row = FindSubkey(connection, row, TakeKeyName(path));
    return row;
}

/// The row of a key, which is made with all above it when it does not exist.
std::int64_t MakeKey(sqlite3* connection, std::u16string_view path, RegistryDisposition& disposition) {
    Transaction transaction(connection);
    std::int64_t row = rootRow;
    disposition = RegistryDisposition::opened;
    while (!path.empty()) {
        const std::u16string_view name = TakeKeyName(path);
        const std::int64_t parent = std::exchange(row, FindSubkey(connection, row, name));
        if (row != 0) continue;
        Execute(connection, "INSERT INTO key (parent, name) VALUES (?, ?)", parent, Utf8FromWide(name));
        row = sqlite3_last_insert_rowid(connection);
        disposition = RegistryDisposition::created;
    }
    transaction.Commit();
    return row;
}

bool KeyExists(sqlite3* connection, std::int64_t row) {
    return Statement(connection, "SELECT 1 FROM key WHERE id = ?", row).Step();
}

RegistryKey NewHandle(Store& store, std::int64_t row, RegistryAccess access) {
    auto slot = std::find_if(store.keys.begin(), store.keys.end(), [](const OpenKey& key) { return key.row == 0; });
    if (slot == store.keys.end()) slot = store.keys.insert(slot, OpenKey());
    *slot = {.row = row, .generation = store.database.generation, .access = access, .seen = std::nullopt};
    return static_cast<RegistryKey>(slot - store.keys.begin()) + 1;
}

OpenKey* FindHandle(Store& store, RegistryKey key) {
    if (key == 0 || key > store.keys.size() || store.keys[key - 1].row == 0) return nullptr;
    return &store.keys[key - 1];
}

/// Runs an operation on an open key's row. When it gives fileNotFound because the key was deleted under its handle, the
/// result is keyDeleted. An operation that succeeds without touching a row has to tell that apart itself.
template <class Operation>
Error WithKey(Store& store, RegistryKey key, Purpose purpose, Operation&& operation) {
    const std::lock_guard guard(store.mutex);
    const OpenKey* open = FindHandle(store, key);
    if (!open) return error::invalidHandle;
    if (purpose == Purpose::write && open->access != RegistryAccess::allAccess) return error::accessDenied;
    return WithConnection(store, purpose, [&](sqlite3* connection) -> Error {
        if (open->generation != store.database.generation) return error::keyDeleted;
        const Error result = operation(connection, open->row);
        return result == error::fileNotFound && !KeyExists(connection, open->row) ? error::keyDeleted : result;
    });
}

Error OpenKeyAt(Store& store, RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key) {
    key = 0;
    if (root != RootKey::localMachine) return error::invalidHandle;
    if (!IsRegistryKeyPath(subKey)) return error::invalidName;
    const std::lock_guard guard(store.mutex);
    return WithConnection(store, Purpose::read, [&](sqlite3* connection) -> Error {
        const std::int64_t row = FindKey(connection, subKey);
        if (row == 0) return error::fileNotFound;
        key = NewHandle(store, row, access);
        return error::success;
    });
}

Error CreateKeyAt(Store& store, RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key,
                  RegistryDisposition& disposition) {
    disposition = RegistryDisposition::opened;
    const Error found = OpenKeyAt(store, root, subKey, access, key);
    if (found != error::fileNotFound) return found;
    const std::lock_guard guard(store.mutex);
    return WithConnection(store, Purpose::write, [&](sqlite3* connection) {
        key = NewHandle(store, MakeKey(connection, subKey, disposition), access);
        return error::success;
    });
}

Error CloseKey(Store& store, RegistryKey key) {
    const std::lock_guard guard(store.mutex);
    OpenKey* open = FindHandle(store, key);
    if (!open) return error::invalidHandle;
    *open = OpenKey();
    return error::success;
}

Error QueryValue(Store& store, RegistryKey key, std::u16string_view name, RegistryType* type, std::byte* data,
                 std::size_t& size) {
    const std::string utf8 = Utf8FromWide(name);
    return WithKey(store, key, Purpose::read, [&](sqlite3* connection, std::int64_t row) -> Error {
        Statement find(connection, "SELECT type, data FROM value WHERE key = ? AND name = ?", row, utf8);
        if (!find.Step()) return error::fileNotFound;
        if (type) *type = static_cast<RegistryType>(find.number(0));
        const std::string_view bytes = find.bytes(1);
        const std::size_t room = std::exchange(size, bytes.size());
        if (!data) return error::success;
        if (room < bytes.size()) return error::moreData;
        std::copy_n(bytes.data(), bytes.size(), reinterpret_cast<char*>(data));
        return error::success;
    });
}

Error SetValue(Store& store, RegistryKey key, std::u16string_view name, RegistryType type, const std::byte* data,
               std::size_t size) {
    if (!IsRegistryValueName(name)) return error::invalidName;
    if (size > maximumValueBytes) return error::invalidParameter;
    const std::string utf8 = Utf8FromWide(name);
    return WithKey(store, key, Purpose::write, [&](sqlite3* connection, std::int64_t row) {
        // The row comes from the table of keys, so that nothing is ever stored under a key that is gone.
        Execute(connection,
                "INSERT INTO value (key, name, type, data) SELECT id, ?, ?, ? FROM key WHERE id = ?"
                " ON CONFLICT (key, name) DO UPDATE SET type = excluded.type, data = excluded.data",
                utf8, static_cast<std::int64_t>(type), Blob{{reinterpret_cast<const char*>(data), size}}, row);
        return sqlite3_changes(connection) > 0 ? error::success : error::keyDeleted;
    });
}

Error DeleteValue(Store& store, RegistryKey key, std::u16string_view name) {
    const std::string utf8 = Utf8FromWide(name);
    return WithKey(store, key, Purpose::write, [&](sqlite3* connection, std::int64_t row) {
        Execute(connection, "DELETE FROM value WHERE key = ? AND name = ?", row, utf8);
        return sqlite3_changes(connection) > 0 ? error::success : error::fileNotFound;
    });
}

Error ListNames(Store& store, RegistryKey key, const char* sql, std::vector<std::u16string>& names) {
    names.clear();
    return WithKey(store, key, Purpose::read, [&](sqlite3* connection, std::int64_t row) {
        Statement list(connection, sql, row);
        while (list.Step()) names.push_back(WideFromUtf8(list.bytes(0)));
        return names.empty() && !KeyExists(connection, row) ? error::keyDeleted : error::success;
    });
}

Error DeleteTree(Store& store, RootKey root, std::u16string_view subKey) {
    if (root != RootKey::localMachine) return error::invalidHandle;
    if (subKey.empty()) return error::accessDenied;
    if (!IsRegistryKeyPath(subKey)) return error::invalidName;
    const std::lock_guard guard(store.mutex);
    if (const Error missing = Connect(store.database, Purpose::read))
        return missing;  // a deletion does not make the file
    return WithConnection(store, Purpose::write, [&](sqlite3* connection) -> Error {
        Transaction transaction(connection);
        const std::int64_t top = FindKey(connection, subKey);
        if (top == 0) return error::fileNotFound;
        constexpr const char* statements[] = {
            "WITH RECURSIVE tree (id) AS (SELECT ? UNION SELECT key.id FROM key JOIN tree ON key.parent = tree.id)"
            " DELETE FROM value WHERE key IN tree",
            "WITH RECURSIVE tree (id) AS (SELECT ? UNION SELECT key.id FROM key JOIN tree ON key.parent = tree.id)"
            " DELETE FROM key WHERE id IN tree"};
        for (const char* sql : statements) Execute(connection, sql, top);
        transaction.Commit();
        return error::success;
    });
}

/// Compares the registry's state with what this handle saw last. The first call sees a change at once, so that nothing
/// is missed between a caller's reading and its waiting.
Error LookForChange(Store& store, RegistryKey key, bool& changed) {
    return WithKey(store, key, Purpose::read, [&](sqlite3* connection, std::int64_t row) -> Error {
        const ChangeMark now{QueryNumber(connection, "PRAGMA data_version"), sqlite3_total_changes64(connection)};
        OpenKey& open = *FindHandle(store, key);
        changed = open.seen != now;
        open.seen = now;
        return changed && !KeyExists(connection, row) ? error::keyDeleted : error::success;
    });
}

Error WaitForChange(Store& store, RegistryKey key, std::uint32_t milliseconds) {
    const std::uint64_t deadline = Clock().GetTickCount64() + milliseconds;
    while (true) {
        bool changed = false;
        if (const Error failure = LookForChange(store, key, changed)) return failure;
        if (changed) return error::success;
        const std::uint64_t now = Clock().GetTickCount64();
        if (now >= deadline) return error::waitTimeout;
        Clock().Sleep(static_cast<std::uint32_t>(std::min<std::uint64_t>(changePollMilliseconds, deadline - now)));
    }
}

}  // namespace

RegistryOperations LinuxRegistry() {
    const auto shared = std::make_shared<Store>();
    const auto bound = [shared](auto routine) {
        return Guarded([shared, routine](auto&&... arguments) {
            return routine(*shared, std::forward<decltype(arguments)>(arguments)...);
        });
    };
    const auto list = [](const char* sql) {
        return [sql](Store& store, RegistryKey key, auto& names) { return ListNames(store, key, sql, names); };
    };
    return {
        .RegOpenKeyExW = bound(OpenKeyAt),
        .RegQueryValueExW = bound(QueryValue),
        .RegCreateKeyExW = bound(CreateKeyAt),
        .RegSetValueExW = bound(SetValue),
        .RegCloseKey = bound(CloseKey),
        .RegEnumKeyExW = bound(list("SELECT name FROM key WHERE parent = ? ORDER BY name")),
        .RegEnumValueW = bound(list("SELECT name FROM value WHERE key = ? ORDER BY name")),
        .RegDeleteValueW = bound(DeleteValue),
        .RegDeleteTreeW = bound(DeleteTree),
        .RegNotifyChangeKeyValue = bound(WaitForChange),
    };
}

void InstallRegistry() { CurrentOperations<RegistryOperations>() = LinuxRegistry(); }

}  // namespace platform
