// The registry in its file: keys, values, handles, changes.
#include <filesystem>
#include <gmock/gmock.h>

#include "platform/posix/posix.h"
#include "tests/platform/registry_helpers.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Registry_ = TestAgent;
using Names = std::vector<std::u16string>;

Names NamesIn(const decltype(RegistryOperations::RegEnumKeyExW)& list, std::u16string_view path) {
    Names names{u"left over"};
    RegistryKey key = 0;
    Open(path, key);
    EXPECT_EQ(list(key, names), error::success);
    return names;
}

TEST_F(Registry_, ReadingLeavesNoFileBehindAndAWriteMakesOneForItsOwnerOnly) {
    EXPECT_EQ(GetBytes(u"Software", u"name"), "error 2");
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"Software"), error::fileNotFound);
    EXPECT_TRUE(fs::is_empty(folder / "state"));
    EXPECT_EQ(SetBytes(u"Software\\A", u"name", "data"), error::success);
    for (const char* name : {"registry.db", "registry.db-wal", "registry.db-shm"}) {
        EXPECT_EQ(fs::status(folder / "state" / name).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
}

TEST_F(Registry_, NamesIgnoreCaseAndKeepTheirFirstForm) {
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\KVAgent", u"LogLevel", "1"), error::success);
    EXPECT_EQ(SetBytes(u"SOFTWARE\\halvorine\\kvagent", u"loglevel", "22"), error::success);
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\Another", u"", "of the key itself"), error::success);
    EXPECT_EQ(GetBytes(u"software\\HALVORINE\\KVAGENT", u"LOGLEVEL"), "22");
    EXPECT_THAT(NamesIn(Registry().RegEnumKeyExW, u"Software\\Halvorine"), ElementsAre(u"Another", u"KVAgent"));
    EXPECT_THAT(NamesIn(Registry().RegEnumValueW, u"Software\\Halvorine\\KVAgent"), ElementsAre(u"LogLevel"));
    EXPECT_THAT(NamesIn(Registry().RegEnumValueW, u"Software"), IsEmpty());

    const std::u16string refused[] = {
        u"\\A", u"A\\", u"A\\\\B", u"A\nB", {u'A', 0}, {u'A', 0xD800}, std::u16string(256, u'k')};
    for (const std::u16string& path : refused) EXPECT_EQ(SetBytes(path, u"v", "1"), error::invalidName) << path.size();
    EXPECT_EQ(SetBytes(u"A", u"a\nb", "1"), error::invalidName);
    EXPECT_EQ(SetBytes(std::u16string(255, u'k'), u"gr\u00fc\u00df \U0001F600", "1"), error::success);
    EXPECT_EQ(GetBytes(std::u16string(255, u'K'), u"gr\u00fc\u00df \U0001F600"), "1");
}

TEST_F(Registry_, AKeyDeletedUnderAnOpenHandleStaysDeletedWhenAnotherIsMadeInItsPlace) {
    ASSERT_EQ(SetBytes(u"K\\Sub\\Deep", u"v", "1"), error::success);
    RegistryKey key = 0;
    Open(u"K\\Sub", key);
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u"k\\SUB"), error::success);
    EXPECT_EQ(GetBytes(u"K\\Sub\\Deep", u"v"), "error 2");
    ASSERT_EQ(SetBytes(u"K\\Sub", u"v", "2"), error::success);
    Names names;
    EXPECT_EQ(Registry().RegSetValueExW(key, u"v", RegistryType::binary, nullptr, 0), error::keyDeleted);
    EXPECT_EQ(Registry().RegEnumKeyExW(key, names), error::keyDeleted);
    EXPECT_EQ(GetBytes(u"K\\Sub", u"v"), "2");
    EXPECT_EQ(Registry().RegCloseKey(key), error::success);
    EXPECT_EQ(Registry().RegCloseKey(key), error::invalidHandle);
    Open(u"K", key, RegistryAccess::queryValue);
    EXPECT_EQ(Registry().RegSetValueExW(key, u"v", RegistryType::binary, nullptr, 0), error::accessDenied);
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u""), error::accessDenied) << "the root stays";

    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(folder / "state/registry.db" += suffix);
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::fileNotFound);
    EXPECT_EQ(SetBytes(u"K", u"v", "present"), error::success) << "a file that is gone is made anew";
    EXPECT_EQ(Registry().RegEnumValueW(key, names), error::keyDeleted);
    EXPECT_EQ(GetBytes(u"K", u"v"), "present");
}

TEST_F(Registry_, AChangeIsSeenOnceWhoeverMadeIt) {
    ASSERT_EQ(SetBytes(u"K", u"v", "1"), error::success);
    const RegistryOperations other = platform::PosixRegistry();  // a second connection, as another process has
    VirtualClock clock;
    RegistryKey key = 0;
    Open(u"K", key);
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
