// The registry among many processes, killed ones among them, and over files that are not what they should be.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/backend.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"
#include "tests/tools/registry_helpers.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;

class RegistryFaults : public TestAgent {
  protected:
    fs::path file = folder / "state" / "registry.db";

    /// Ends this process's connection; the next call opens another.
    static void CloseRegistry() { platform::InstallBackend(); }
};

/// A child process that runs work and ends with its result. The registry must not be open in this process.
pid_t Fork(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    return child;
}

int CountUp(std::u16string_view name, int times) {
    for (int i = 1; i <= times; ++i) {
        const std::string former = GetBytes(u"Counters", name);
        if (former != (i == 1 ? "error 2" : std::to_string(i - 1))) return 1;
        if (SetBytes(u"Counters", name, std::to_string(i)) != error::success) return 2;
    }
    return 0;
}

TEST_F(RegistryFaults, ProcessesThatWriteAtOnceLoseNothing) {
    // From nothing: the processes also compete for making the file.
    const std::u16string_view names[] = {u"first", u"second", u"third"};
    for (const std::u16string_view name : names) Fork([name] { return CountUp(name, 100); });
    for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
    for (const std::u16string_view name : names) EXPECT_EQ(GetBytes(u"Counters", name), "100");
}

/// Counts up for ever and tells each number that has been stored.
[[noreturn]] void CountAndTell(int pipe, int number) {
    while (true) {
        ++number;
        if (SetBytes(u"Counters\\Deep", u"number", std::to_string(number)) != error::success) _exit(1);
        if (write(pipe, &number, sizeof number) != sizeof number) _exit(2);
    }
}

TEST_F(RegistryFaults, AWriterKilledAtAnyMomentLosesNothingItHasBeenToldIsStored) {
    int stored = 0;
    for (int round = 0; round < 12; ++round) {
        int ends[2] = {};
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = Fork([&] {
            CountAndTell(ends[1], stored);
            return 0;
        });
        close(ends[1]);
        const int enough = stored + round;
        while (stored < enough && read(ends[0], &stored, sizeof stored) == sizeof stored) {
        }
        usleep(static_cast<useconds_t>(round * 700));  // so that the end comes at different steps of a write
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(ends[0], &stored, sizeof stored) == sizeof stored) {
        }
        close(ends[0]);
        const std::string found = GetBytes(u"Counters\\Deep", u"number");
        CloseRegistry();
        if (stored == 0 && found == "error 2") continue;  // ended before its first write
        const int number = std::stoi(found);
        EXPECT_TRUE(number == stored || number == stored + 1) << "told " << stored << ", found " << found;
        stored = number;
    }
    EXPECT_GT(stored, 12);
}

/// Makes a file that only SQLite itself knows.
void RunSql(const fs::path& path, const char* sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

TEST_F(RegistryFaults, ALockIsWaitedForAndThenGivenUp) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    CloseRegistry();
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE", nullptr, nullptr, nullptr),
              SQLITE_OK);
    VirtualClock clock;
    for (const bool writes : {false, true}) {
        const std::int64_t start = clock.nowMilliseconds();
        EXPECT_EQ(writes ? SetBytes(u"K", u"v", "2") : TryOpen(u"K"), error::busy);
        EXPECT_GE(clock.nowMilliseconds() - start, 5000);
        EXPECT_LE(clock.nowMilliseconds() - start, 5200);
    }
    const std::int64_t start = clock.nowMilliseconds();
    clock.onSleep = [&](std::uint32_t) {
        if (holder && clock.nowMilliseconds() - start > 1000) sqlite3_close(std::exchange(holder, nullptr));
    };
    EXPECT_EQ(SetBytes(u"K", u"v", "3"), error::success) << "once the other has let go";
    EXPECT_EQ(GetBytes(u"K", u"v"), "3");
}

TEST_F(RegistryFaults, FilesThatAreNoRegistryAreLeftAlone) {
    struct Row {
        const char* title;
        std::string bytes;
        const char* sql;  // for a file that SQLite makes
        Error read;
        Error write;
    };
    constexpr Error corrupt = error::databaseCorrupt;
    const Row rows[] = {
        {"text", "just some text, long enough to be looked at\n", nullptr, corrupt, corrupt},
        {"a whole page of zeros", std::string(4096, '\0'), nullptr, corrupt, corrupt},
        {"another program's database", "", "CREATE TABLE key (id)", corrupt, corrupt},
        {"a later version", "", "PRAGMA application_id = 0x4B565247; PRAGMA user_version = 2", corrupt, corrupt},
        {"no tables", "", "PRAGMA application_id = 0x4B565247; PRAGMA user_version = 1", corrupt, corrupt},
        {"empty, as a process leaves it that is killed at once", "", nullptr, error::fileNotFound, error::success},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        CloseRegistry();
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(file.string() + suffix);
        Write(file, row.bytes);
        if (row.sql) RunSql(file, row.sql);
        const std::string before = Read(file);
        for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(TryOpen(u"K"), row.read);
        EXPECT_EQ(SetBytes(u"K", u"v", "1"), row.write);
        EXPECT_TRUE(row.write == error::success || Read(file) == before) << "the file was changed";
    }
    CloseRegistry();
    fs::remove_all(file.parent_path());
    fs::create_directories(file);
    EXPECT_EQ(SetBytes(u"K", u"v", "1"), error::accessDenied) << "a directory";
    fs::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(SetBytes(u"K", u"v", "1"), error::accessDenied) << "a pipe";
}

TEST_F(RegistryFaults, AFileWithoutPermissionIsDenied) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    CloseRegistry();
    fs::permissions(folder, fs::perms::all);
    fs::permissions(file, fs::perms::none);
    const bool root = geteuid() == 0;  // whom no permission keeps out
    ASSERT_EQ(root ? seteuid(65534) : 0, 0);
    const Error read = TryOpen(u"K");
    const Error write = SetBytes(u"K", u"v", "2");
    ASSERT_EQ(root ? seteuid(0) : 0, 0);
    EXPECT_EQ(read, error::accessDenied);
    EXPECT_EQ(write, error::accessDenied);
}

TEST_F(RegistryFaults, DamageAnywhereInTheFileIsSurvived) {
    for (int i = 0; i < 60; ++i) {
        const std::u16string number(1, static_cast<char16_t>(u'A' + i % 26));
        ASSERT_EQ(SetBytes(u"K\\" + number + number, number, std::string(300, 'x')), error::success);
    }
    CloseRegistry();
    const std::string whole = Read(file);
    ASSERT_GT(whole.size(), 8192U);
    std::map<Error, int> results;
    for (std::size_t at = 0; at < whole.size(); at += 193) {
        std::string damaged = whole;
        std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), std::min<std::size_t>(48, whole.size() - at),
                    '\xA5');
        CloseRegistry();
        Write(file, at % 2 == 0 ? damaged : whole.substr(0, at));
        for (const char* suffix : {"-wal", "-shm"}) fs::remove(file.string() + suffix);
        const RegistryKey key = Open(u"K\\AA");
        std::vector<std::u16string> names;
        ++results[TryOpen(u"K\\BB")];
        ++results[Registry().RegEnumValueW(key, names)];
        ++results[SetBytes(u"K\\New", u"v", "1")];
        ++results[Registry().RegDeleteTreeW(RootKey::localMachine, u"K")];
    }
    EXPECT_GT(results[error::success], 0) << "some damage hits what is not read";
    EXPECT_GT(results[error::databaseCorrupt], 0);
}

}  // namespace

}  // namespace kv::test
