// The registry: names, values, handles and changes.
#include <gmock/gmock.h>
#include <thread>

#include "platform/backend.h"
#include "tests/platform/registry_helpers.h"
#include "tests/support/test_folder.h"

namespace kv::test {

namespace {

using ::testing::ElementsAre;

struct RegistryTest : TestFolder {
    RegistryTest() { platform::InstallRegistry(); }
};

using Names = std::vector<std::u16string>;

/// The names that a list has of a key.
Names NamesIn(const decltype(RegistryOperations::RegEnumKeyExW)& list, std::u16string_view path) {
    Names names{u"left over"};
    RegistryKey key = 0;
    Open(path, key);
    EXPECT_EQ(list(key, names), error::success);
    return names;
}

TEST_F(RegistryTest, NamesIgnoreCaseAndKeepTheirFirstSpelling) {
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\KVAgent", u"LogLevel", "1"), error::success);
    EXPECT_EQ(SetBytes(u"SOFTWARE\\halvorine\\kvagent", u"loglevel", "22"), error::success);
    EXPECT_EQ(SetBytes(u"Software\\Halvorine\\Another", u"", "of the key itself"), error::success);
    EXPECT_EQ(GetBytes(u"software\\HALVORINE\\KVAGENT", u"LOGLEVEL"), "22");
    EXPECT_THAT(NamesIn(Registry().RegEnumKeyExW, u"Software\\Halvorine"), ElementsAre(u"Another", u"KVAgent"));
    EXPECT_THAT(NamesIn(Registry().RegEnumValueW, u"Software\\Halvorine\\KVAgent"), ElementsAre(u"LogLevel"));
    EXPECT_THAT(NamesIn(Registry().RegEnumValueW, u"Software"), testing::IsEmpty());

    const std::u16string refused[] = {
        u"\\A", u"A\\", u"A\\\\B", u"A\nB", {u'A', 0}, {u'A', 0xD800}, std::u16string(256, u'k')};
    for (const std::u16string& path : refused) EXPECT_EQ(SetBytes(path, u"v", "1"), error::invalidName) << path.size();
    EXPECT_EQ(SetBytes(u"A", u"a\nb", "1"), error::invalidName);
    EXPECT_EQ(SetBytes(std::u16string(255, u'k'), u"gr\u00fc\u00df \U0001F600", "1"), error::success);
    EXPECT_EQ(GetBytes(std::u16string(255, u'K'), u"gr\u00fc\u00df \U0001F600"), "1");
}

TEST_F(RegistryTest, AHandleOfADeletedKeyDoesNotReachItsSuccessor) {
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
    EXPECT_EQ(Registry().RegDeleteTreeW(RootKey::localMachine, u""), error::accessDenied) << "the root";
}

TEST_F(RegistryTest, MakesAKeyAndAllLevelsAboveIt) {
    std::u16string path = u"K";
    for (int level = 1; level < 100; ++level) path += u"\\level";
    RegistryKey key = 0;
    for (const RegistryDisposition expected : {RegistryDisposition::created, RegistryDisposition::opened}) {
        RegistryDisposition disposition{};
        EXPECT_EQ(Registry().RegCreateKeyExW(RootKey::localMachine, path, RegistryAccess::read, key, disposition),
                  error::success);
        EXPECT_EQ(disposition, expected);
    }
    EXPECT_EQ(Registry().RegSetValueExW(key, u"v", RegistryType::binary, nullptr, 0), error::accessDenied);
    EXPECT_EQ(Open(path + u"\\level", key), error::fileNotFound);
    EXPECT_EQ(key, 0U);
}

TEST_F(RegistryTest, TellsAValuesSizeAndCopiesItOnlyIfItFits) {
    ASSERT_EQ(SetBytes(u"K", u"v", "12345", RegistryType::multiText), error::success);
    RegistryKey key = 0;
    Open(u"K", key, RegistryAccess::queryValue);
    const std::tuple<std::size_t, Error, std::string> rows[] = {
        {0, error::moreData, "....."}, {4, error::moreData, "....."}, {5, error::success, "12345"}};
    for (const auto& [room, result, expected] : rows) {
        std::string data(5, '.');
        std::size_t size = room;
        RegistryType type{};
        EXPECT_EQ(Registry().RegQueryValueExW(key, u"V", &type, reinterpret_cast<std::byte*>(data.data()), size),
                  result);
        EXPECT_EQ(size, 5U);
        EXPECT_EQ(data, expected);
        EXPECT_EQ(type, RegistryType::multiText);
    }
    EXPECT_EQ(SetBytes(u"K", u"v", std::string((1 << 20) + 1, 'x')), error::invalidParameter);
    EXPECT_EQ(GetBytes(u"K", u"v"), "12345");
    EXPECT_EQ(GetBytes(u"K", {u"v\0", 2}), "error 2");
}

TEST_F(RegistryTest, TellsAChangeInOrBelowAKeyOnce) {
    ASSERT_EQ(SetBytes(u"K\\Sub", u"v", "1"), error::success);
    RegistryKey key = 0;
    Open(u"K", key, RegistryAccess::read);
    const auto wait = [&key](std::uint32_t milliseconds) {
        return Registry().RegNotifyChangeKeyValue(key, milliseconds);
    };
    EXPECT_EQ(wait(0), error::success) << "a change before the first call";
    EXPECT_EQ(wait(50), error::waitTimeout);
    for (const char16_t* path : {u"K", u"K\\Sub"}) {
        ASSERT_EQ(SetBytes(path, u"v", "2"), error::success);
        EXPECT_EQ(wait(0), error::success);
        EXPECT_EQ(wait(0), error::waitTimeout);
    }
    std::thread waiting([&wait] { EXPECT_EQ(wait(20'000), error::success); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    SetBytes(u"K\\Sub", u"v", "3");
    waiting.join();
    EXPECT_EQ(SetBytes(u"K", u"v", "4"), error::success);
    EXPECT_EQ(wait(0), error::success) << "after the thread that waited has ended";
    Registry().RegDeleteTreeW(RootKey::localMachine, u"K\\Sub");
    EXPECT_EQ(wait(0), error::success);
    Registry().RegDeleteTreeW(RootKey::localMachine, u"K");
    EXPECT_EQ(wait(0), error::keyDeleted);
}

}  // namespace

}  // namespace kv::test
