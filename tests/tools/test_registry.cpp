// The registry in its file: keys, values, handles, changes.
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "platform/backend.h"
#include "platform/posix/posix.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"
#include "tests/tools/registry_helpers.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Registry_ : public TestAgent {
  protected:
    fs::path file = folder / "state" / "registry.db";
};

std::vector<std::u16string> Names(const decltype(RegistryOperations::RegEnumKeyExW)& list, std::u16string_view path) {
    std::vector<std::u16string> names{u"left over"};
    const RegistryKey key = Open(path);
    EXPECT_EQ(list(key, names), error::success);
    Registry().RegCloseKey(key);
    return names;
}

TEST_F(Registry_, ReadingLeavesNoFileBehindAndAWriteMakesOneForItsOwnerOnly) {
    EXPECT_EQ(TryOpen(u"Software"), error::fileNotFound);
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"Software"), error::fileNotFound);
    EXPECT_TRUE(fs::is_empty(folder / "state"));
    EXPECT_EQ(SetBytes(u"Software\\A", u"name", "data"), error::success);
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(folder / "state")) {
        struct stat facts {};
        ASSERT_EQ(stat(entry.path().c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 0777, 0600U) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 3U) << "the database, its write-ahead log and the log's index";
}

TEST_F(Registry_, NamesIgnoreCaseAndKeepTheirFirstForm) {
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\KVAgent", u"LogLevel", "1"), error::success);
    EXPECT_EQ(SetBytes(u"SOFTWARE\\halvorine\\kvagent", u"loglevel", "22"), error::success);
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\Another", u"", "of the key itself"), error::success);
    EXPECT_EQ(GetBytes(u"software\\HALVORINE\\KVAGENT", u"LOGLEVEL"), "22");
    EXPECT_THAT(Names(Registry().RegEnumKeyExW, u"Software\\Halvorine"), ElementsAre(u"Another", u"KVAgent"));
    EXPECT_THAT(Names(Registry().RegEnumValueW, u"Software\\Halvorine\\KVAgent"), ElementsAre(u"LogLevel"));
    EXPECT_THAT(Names(Registry().RegEnumValueW, u"Software\\Halvorine\\Another"), ElementsAre(u""));
    EXPECT_THAT(Names(Registry().RegEnumValueW, u"Software"), IsEmpty());
}

TEST_F(Registry_, SizesOnTheWayInAndOut) {
    ASSERT_EQ(SetBytes(u"K", u"v", std::string("a\0b", 3), RegistryType::text), error::success);
    ASSERT_EQ(SetBytes(u"K", u"empty", "", RegistryType::none), error::success);
    const RegistryKey key = Open(u"K");
    RegistryType type{};
    std::size_t size = 0;
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"v", &type, nullptr, size), error::success);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(type, RegistryType::text);
    std::byte room[3] = {};
    size = 2;
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"v", nullptr, room, size), error::moreData);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(room[0], std::byte{0}) << "nothing is copied";
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"v", nullptr, room, size), error::success);
    EXPECT_EQ(room[2], std::byte{'b'});
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"empty", &type, room, size), error::success);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(type, RegistryType::none);
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"missing", &type, room, size), error::fileNotFound);
    EXPECT_EQ(SetBytes(u"K", u"large", std::string(1024 * 1024, 'x')), error::success);
    EXPECT_EQ(SetBytes(u"K", u"large", std::string(1024 * 1024 + 1, 'x')), error::invalidParameter);
}

TEST_F(Registry_, NamesThatCannotBeAreRefused) {
    const std::u16string rows[] = {u"\\A",
                                   u"A\\",
                                   u"A\\\\B",
                                   u"A\nB",
                                   std::u16string(u"A\0B", 3),
                                   std::u16string(1, char16_t{0xD800}),
                                   std::u16string(256, u'k')};
    for (const std::u16string& path : rows) {
        EXPECT_EQ(SetBytes(path, u"v", "1"), error::invalidName) << path.size();
        EXPECT_EQ(TryOpen(path), error::invalidName);
    }
    EXPECT_EQ(SetBytes(u"A", u"a\nb", "1"), error::invalidName);
    EXPECT_EQ(SetBytes(std::u16string(255, u'k'), u"gr\u00fc\u00df \U0001F600", "1"), error::success);
    EXPECT_EQ(GetBytes(std::u16string(255, u'K'), u"gr\u00fc\u00df \U0001F600"), "1");
}

TEST_F(Registry_, AKeyDeletedUnderAnOpenHandleStaysDeletedWhenAnotherIsMadeInItsPlace) {
    ASSERT_EQ(SetBytes(u"K\\Sub\\Deep", u"v", "1"), error::success);
    const RegistryKey key = Open(u"K\\Sub");
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"k\\SUB"), error::success);
    EXPECT_EQ(TryOpen(u"K\\Sub\\Deep"), error::fileNotFound);
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"K\\Sub"), error::fileNotFound);
    ASSERT_EQ(SetBytes(u"K\\Sub", u"v", "2"), error::success);
    std::size_t size = 0;
    std::vector<std::u16string> names;
    EXPECT_EQ(Registry().RegQueryValueExW(key, u"v", nullptr, nullptr, size), error::keyDeleted);
    EXPECT_EQ(Registry().RegSetValueExW(key, u"v", RegistryType::binary, nullptr, 0), error::keyDeleted);
    EXPECT_EQ(Registry().RegDeleteValueW(key, u"v"), error::keyDeleted);
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::keyDeleted);
    EXPECT_EQ(Registry().RegEnumKeyExW(key, names), error::keyDeleted);
    EXPECT_EQ(GetBytes(u"K\\Sub", u"v"), "2");
    const RegistryKey now = Open(u"K\\Sub");
    EXPECT_EQ(Registry().RegDeleteValueW(now, u"V"), error::success);
    EXPECT_EQ(Registry().RegDeleteValueW(now, u"V"), error::fileNotFound);
    EXPECT_EQ(Registry().RegCloseKey(now), error::success);
    EXPECT_EQ(Registry().RegCloseKey(now), error::invalidHandle);
    EXPECT_EQ(Registry().RegEnumKeyExW(0, names), error::invalidHandle);
    const RegistryKey reader = Open(u"K", RegistryAccess::queryValue);
    EXPECT_EQ(Registry().RegSetValueExW(reader, u"v", RegistryType::binary, nullptr, 0), error::accessDenied);
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u""), error::accessDenied) << "the root stays";
}

TEST_F(Registry_, AFileThatIsReplacedIsOpenedAnew) {
    ASSERT_EQ(SetBytes(u"K", u"v", "former"), error::success);
    const RegistryKey key = Open(u"K");
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(file.string() + suffix);
    std::vector<std::u16string> names;
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::fileNotFound);
    EXPECT_EQ(SetBytes(u"K", u"v", "present"), error::success);
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::keyDeleted);
    EXPECT_EQ(GetBytes(u"K", u"v"), "present");
}

TEST_F(Registry_, AChangeIsSeenOnceWhoeverMadeIt) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    const RegistryOperations other = platform::PosixRegistry();  // a second connection, as another process has
    VirtualClock clock;
    const RegistryKey key = Open(u"K");
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::success) << "what happened before the first call";
    const std::int64_t start = clock.nowMilliseconds();
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 1500), error::waitTimeout);
    EXPECT_EQ(clock.nowMilliseconds() - start, 1500);

    clock.onSleep = [&](std::uint32_t) {
        if (clock.nowMilliseconds() - start > 3000) SetBytes(u"K", u"v", "2", RegistryType::binary, other);
    };
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 60'000), error::success);
    EXPECT_LE(clock.nowMilliseconds() - start, 3400);
    clock.onSleep = nullptr;
    ASSERT_EQ(SetBytes(u"K", u"v", "3"), error::success);
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::success) << "this process's own write";
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::waitTimeout);
    other.RegDeleteTreeW(RootKey::localMachine, u"K");
    EXPECT_EQ(Registry().RegNotifyChangeKeyValue(key, 0), error::keyDeleted);
}

}  // namespace

}  // namespace kv::test
