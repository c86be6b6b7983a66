// The registry's file: with several processes, kills, locks, and files that are not a registry.
#include <atomic>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <signal.h>
#include <sqlite3.h>
#include <sys/fsuid.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/backend.h"
#include "platform/linux/linux.h"
#include "tests/platform/registry_helpers.h"
#include "tests/support/test_folder.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;

class RegistryFile : public TestFolder {
  protected:
    RegistryFile() { platform::InstallRegistry(); }

    /// Ends this process's connection; the next call opens another.
    static void CloseRegistry() { platform::InstallRegistry(); }

    fs::path file = folder / "state" / "registry.db";
};

TEST_F(RegistryFile, OnlyAWriteMakesTheFileAndForItsOwnerOnly) {
    EXPECT_EQ(GetBytes(u"Software", u"name"), "error 2");
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"Software"), error::fileNotFound);
    EXPECT_TRUE(fs::is_empty(folder / "state"));
    EXPECT_EQ(SetBytes(u"Software\\A", u"name", "data"), error::success);
    CloseRegistry();  // the log stays for a start on a full disk
    for (const char* name : {"registry.db", "registry.db-wal", "registry.db-shm"}) {
        EXPECT_EQ(fs::status(folder / "state" / name).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
}

TEST_F(RegistryFile, IsReadOnAFullDiskWithoutCompanions) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    CloseRegistry();
    fs::remove(file.string() + "-shm");
    rlimit former{};  // a limit on the size of files stands in for a full disk
    getrlimit(RLIMIT_FSIZE, &former);
    const rlimit limit{0, former.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string read = GetBytes(u"K", u"v");
    const Error written = SetBytes(u"K", u"v", "2");
    const std::string again = GetBytes(u"K", u"v");
    setrlimit(RLIMIT_FSIZE, &former);
    EXPECT_EQ(read + again, "11");
    EXPECT_EQ(written, error::diskFull);
    const RegistryOperations other = platform::LinuxRegistry();  // a second connection, like that of another process
    EXPECT_EQ(SetBytes(u"K", u"v", "3", RegistryType::binary, other), error::success);
    EXPECT_EQ(GetBytes(u"K", u"v"), "3") << "with room again";
}

TEST_F(RegistryFile, IsWrittenOnceADiskThatWasReadOnlyIsWritable) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    CloseRegistry();
    constexpr uid_t someone = 65534;  // whom permissions hold back, unlike the superuser
    const std::string files[] = {file, file.string() + "-wal", file.string() + "-shm"};
    for (const std::string& name : files) chmod(name.c_str(), 0444);
    if (geteuid() == 0) {
        for (const fs::path& name : {folder, folder / "state"}) ASSERT_EQ(chown(name.c_str(), someone, someone), 0);
        for (const std::string& name : files) ASSERT_EQ(chown(name.c_str(), someone, someone), 0);
        setfsuid(someone);
    }
    EXPECT_EQ(GetBytes(u"K", u"v"), "1");
    EXPECT_NE(SetBytes(u"K", u"v", "2"), error::success);
    for (const std::string& name : files) chmod(name.c_str(), 0600);
    const Error first = SetBytes(u"K", u"v", "3");
    const Error second = SetBytes(u"K", u"v", "4");
    setfsuid(geteuid());
    EXPECT_TRUE(first == error::success || first == error::accessDenied) << first;
    EXPECT_EQ(second, error::success);
    EXPECT_EQ(GetBytes(u"K", u"v"), "4");
}

TEST_F(RegistryFile, AWriteMakesADeletedFileAgainWithoutItsKeys) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    RegistryKey key = 0;
    Open(u"K", key);
    std::vector<std::u16string> names;
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(file.string() + suffix);
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::fileNotFound);
    EXPECT_EQ(SetBytes(u"K", u"v", "present"), error::success);
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::keyDeleted);
    EXPECT_EQ(GetBytes(u"K", u"v"), "present");
}

TEST_F(RegistryFile, SeesAChangeOfAnotherProcessOnce) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    const RegistryOperations other = platform::LinuxRegistry();  // a second connection, like that of another process
    VirtualClock clock;
    RegistryKey key = 0;
    Open(u"K", key);
    Registry().RegNotifyChangeKeyValue(key, 0);  // earlier changes
    const std::int64_t start = clock.nowMilliseconds();
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 1500), error::waitTimeout);
    EXPECT_EQ(clock.nowMilliseconds() - start, 1500);

    clock.onSleep = [&](std::uint32_t) {
        if (clock.nowMilliseconds() - start > 3000) SetBytes(u"K", u"v", "2", RegistryType::binary, other);
    };
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 60'000), error::success);
    EXPECT_LE(clock.nowMilliseconds() - start, 3400);
    clock.onSleep = nullptr;
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::waitTimeout);
    other.RegDeleteTreeW(RootKey::localMachine, u"K");
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::keyDeleted);
}

/// Starts a child process that runs work and exits with its result. This process must not have the registry open.
pid_t Fork(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    return child;
}

int CountTo100(std::u16string_view name) {
    for (int i = 1; i <= 100; ++i) {
        const std::string former = GetBytes(u"Counters", name);
        if (former != (i == 1 ? "error 2" : std::to_string(i - 1))) return 1;
        if (SetBytes(u"Counters", name, std::to_string(i)) != error::success) return 2;
    }
    return 0;
}

TEST_F(RegistryFile, ProcessesThatWriteAtOnceLoseNothing) {
    // The processes also compete for making the file.
    const std::u16string_view names[] = {u"first", u"second", u"third"};
    for (const std::u16string_view name : names) Fork([name] { return CountTo100(name); });
    for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
    for (const std::u16string_view name : names) EXPECT_EQ(GetBytes(u"Counters", name), "100");
}

TEST_F(RegistryFile, AKilledWriterLosesNothingThatIsStored) {
    void* const shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::atomic<int>& stored = *new (shared) std::atomic<int>(0);
    for (int round = 0; round < 12; ++round) {
        const pid_t child = Fork([&stored] {
            while (SetBytes(u"Counters\\Deep", u"number", std::to_string(stored + 1)) == error::success) ++stored;
            return 1;
        });
        for (const int enough = stored + 1 + round; stored < enough;) ASSERT_EQ(waitpid(child, nullptr, WNOHANG), 0);
        usleep(static_cast<useconds_t>(round * 700));  // kills it at different steps of a write
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const int found = std::stoi(GetBytes(u"Counters\\Deep", u"number"));
        CloseRegistry();
        EXPECT_TRUE(found == stored || found == stored + 1) << "told " << stored << ", found " << found;
        stored = found;
    }
    munmap(shared, 4096);
}

TEST_F(RegistryFile, WaitsForALockAndGivesUp) {
    const std::tuple<const char*, const char*, Error> rows[] = {
        {"the whole file", "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE", error::busy},
        // A reader prevents a file without its log from being switched to it.
        {"the switch to the log", "PRAGMA journal_mode = DELETE; BEGIN; SELECT * FROM key", error::success},
    };
    for (const auto& [title, lock, read] : rows) {
        SCOPED_TRACE(title);
        ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
        CloseRegistry();
        sqlite3* holder = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &holder), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(holder, lock, nullptr, nullptr, nullptr), SQLITE_OK);
        VirtualClock clock;
        RegistryKey key = 0;
        std::vector<std::u16string> names;
        std::int64_t start = clock.nowMilliseconds();
        EXPECT_EQ(Open(u"K", key, RegistryAccess::queryValue), read);
        EXPECT_EQ(clock.nowMilliseconds() - start >= 5000, read == error::busy);
        start = clock.nowMilliseconds();
        EXPECT_EQ(SetBytes(u"K", u"v", "2"), error::busy);
        EXPECT_GE(clock.nowMilliseconds() - start, 5000);
        EXPECT_LE(clock.nowMilliseconds() - start, 5200);
        EXPECT_EQ(key != 0 ? Registry().RegEnumValueW(key, names) : read, read) << "an open key stays open";
        clock.onSleep = [&](std::uint32_t) {
            if (clock.nowMilliseconds() - start > 6000) sqlite3_close(std::exchange(holder, nullptr));
        };
        EXPECT_EQ(SetBytes(u"K", u"v", "3"), error::success) << "after the other has released it";
        EXPECT_EQ(GetBytes(u"K", u"v"), "3");
    }
}

TEST_F(RegistryFile, LeavesOtherFilesAlone) {
    constexpr Error corrupt = error::databaseCorrupt;
    const std::string refused = "error " + std::to_string(corrupt);
    const std::tuple<const char*, std::string, const char*, std::string, Error> rows[] = {
        {"text", "just some text, long enough to be looked at\n", "", refused, corrupt},
        {"another program's database", "", "CREATE TABLE key (id)", refused, corrupt},
        {"a later version", "", "PRAGMA application_id = 0x4B565247; PRAGMA user_version = 2", refused, corrupt},
        {"an empty file, left by a killed process", "", "", "error 2", error::success},
    };
    for (const auto& [title, bytes, sql, read, write] : rows) {  // SQLite itself runs the statement
        SCOPED_TRACE(title);
        CloseRegistry();
        for (const char* suffix : {"-wal", "-shm"}) fs::remove(file.string() + suffix);
        Write(file, bytes);
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
        sqlite3_close(database);
        const std::string before = Read(file);
        for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(GetBytes(u"K", u"v"), read);
        EXPECT_EQ(SetBytes(u"K", u"v", "1"), write);
        EXPECT_TRUE(write == error::success || Read(file) == before) << "the file was changed";
    }
    CloseRegistry();
    fs::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(SetBytes(u"K", u"v", "1"), error::accessDenied) << "a pipe";
}

}  // namespace

}  // namespace kv::test
