// The agent's settings in the real registry: sizes, placeholders and absent values.
#include "foundation/registry_store.h"
#include "foundation/server_limit.h"
#include "tests/platform/registry_helpers.h"
#include "tests/support/test_agent.h"

namespace kv::test {

namespace {

using RegistryStore = TestAgent;

constexpr RootKey root = RootKey::localMachine;

std::string RawText(std::u16string_view text, std::size_t terminatorBytes) {
    std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * 2);
    return bytes + std::string(terminatorBytes, '\0');
}

TEST_F(RegistryStore, StoresEachTypeInItsForm) {
    const std::tuple<const char*, std::u16string_view, RegistryType, std::string> rows[] = {
        {"a text with half of its terminator", u"abc", RegistryType::text, RawText(u"abc", 1)},
        {"the placeholder as the empty text", u"--", RegistryType::text, RawText(u"", 1)},
        {"a list with thirteen bytes more", u"ab", RegistryType::multiText, RawText(u"ab", 13)},
        {"the placeholder as 0", u"--", RegistryType::dword, std::string(4, '\0')},
        {"a negative number", u"-2", RegistryType::dword, "\xFE\xFF\xFF\xFF"},
        {"the largest number", u"4294967295", RegistryType::dword, "\xFF\xFF\xFF\xFF"},
    };
    for (const auto& [title, written, type, bytes] : rows) {
        EXPECT_EQ(writeValue(root, u"A\\New\\Path", u"Value", written, type), error::success) << title;
        EXPECT_EQ(GetBytes(u"A\\New\\Path", u"Value"), bytes) << title;
    }
    for (const std::u16string_view notANumber : {u"12a", u"4294967296", u"-2147483649", u"0x10", u" 1"}) {
        EXPECT_EQ(writeValue(root, u"A", u"Number", notANumber, RegistryType::dword), error::invalidData);
    }
    EXPECT_EQ(GetBytes(u"A", u"Number"), "error 2") << "nothing was stored";
    EXPECT_EQ(writeValue(root, u"A", u"--", u"text", RegistryType::text), error::success);
    EXPECT_EQ(GetBytes(u"A", u""), RawText(u"text", 1));
}

TEST_F(RegistryStore, ReadsTextsWithAnyTerminator) {
    const std::pair<std::string, OptionalText> rows[] = {
        {RawText(u"abc", 1), u"abc"},
        {RawText(u"abc", 13), u"abc"},
        {RawText(std::u16string_view(u"ab\0c", 4), 2), u"ab"},
        {RawText(u"abc", 0) + "d", u"abcd"},
        {std::string(1, '\0'), u""},
        {RawText(std::u16string(1500, u'x'), 0), std::u16string(1500, u'x')},
        {"", std::nullopt},
    };
    OptionalText text;
    for (const auto& [bytes, expected] : rows) {
        ASSERT_EQ(SetBytes(u"A", u"v", bytes, RegistryType::text), error::success);
        EXPECT_EQ(ReadRegSZ(root, u"A", u"v", text), error::success);
        EXPECT_EQ(text, expected);
        EXPECT_EQ(LookUpText(u"A", u"v", text), error::success);
        EXPECT_EQ(text, expected.value_or(u""));
    }
    const std::size_t logged = LogText().size();
    EXPECT_EQ(LookUpText(u"A", u"missing", text), error::fileNotFound);
    EXPECT_EQ(LookUpText(u"Missing", u"v", text), error::fileNotFound);
    ASSERT_EQ(SetBytes(u"A", u"number", "1234", RegistryType::dword), error::success);
    EXPECT_EQ(LookUpText(u"A", u"number", text), error::invalidData);
    EXPECT_EQ(text, std::nullopt);
    EXPECT_EQ(LogText().size(), logged) << "not a line";
    ASSERT_EQ(SetOCAgentKey(u"key \u00fc"), error::success);
    EXPECT_EQ(GetOCAgentKey(text), error::success);
    EXPECT_EQ(text, u"key \u00fc");
    EXPECT_EQ(ReadRegSZ(root, u"A", u"missing", text), error::fileNotFound);
    EXPECT_EQ(text, std::nullopt);
}

TEST_F(RegistryStore, ReadsATextAgainThatGrowsMeanwhile) {
    ASSERT_EQ(SetBytes(u"A", u"v", RawText(u"a", 2), RegistryType::text), error::success);
    const Replaced growing(
        &RegistryOperations::RegQueryValueExW,
        [next = Registry().RegQueryValueExW](auto key, auto name, auto* type, std::byte* out, std::size_t& size) {
            const Error result = next(key, name, type, out, size);
            if (!out && size < 100) SetBytes(u"A", u"v", RawText(std::u16string(60, u'b'), 2), RegistryType::text);
            return result;
        });
    OptionalText text;
    EXPECT_EQ(ReadRegSZ(root, u"A", u"v", text), error::success);
    EXPECT_EQ(text, std::u16string(60, u'b'));
    EXPECT_EQ(ReadRegSZ(root, u"Missing", u"v", text), error::fileNotFound);
    EXPECT_EQ(text, std::nullopt);
    EXPECT_TRUE(Logged("ReadRegSZ: Error while opening registry key for serverName 2 \n"));
    const Replaced denied(&RegistryOperations::RegQueryValueExW,
                          [](auto, auto, auto, std::byte* out, std::size_t& size) {
                              size = 2;
                              return out ? error::accessDenied : error::success;
                          });
    EXPECT_EQ(ReadRegSZ(root, u"A", u"v", text), error::accessDenied);
    EXPECT_TRUE(Logged("ReadRegSZ: Error while reading DWORD value! 5 \n"));
}

TEST_F(RegistryStore, ALimitThatCannotBeReadRefusesUnlessItWasAbsent) {
    const std::u16string names[] = {u"x"};
    const auto isRefused = [&names] { return LimitOfServices().Refusal(names).has_value(); };
    const auto isRefusedUnread = [&isRefused] {
        const Replaced denied(&RegistryOperations::RegOpenKeyExW, [](auto&&...) { return error::accessDenied; });
        return isRefused();
    };
    EXPECT_FALSE(isRefused()) << "absent";
    EXPECT_FALSE(isRefusedUnread());
    writeValue(root, monitoringKeyPath, u"AllowedServices", u"x", RegistryType::text);
    EXPECT_FALSE(isRefused());
    EXPECT_TRUE(isRefusedUnread());
}

TEST_F(RegistryStore, NumbersHaveTheirFallbacks) {
    const struct {
        platform::Error (*get)(std::uint32_t&);
        std::u16string_view key, name;
        std::uint32_t fallback;
        const char* logged = "";
    } rows[] = {
        {GetAgentLogLevel, agentKeyPath, u"AgentLogLevel", 1},
        {GetLoggerMaxSize, agentKeyPath, u"LoggerMaxSize", 1000000},
        {GetLoggerMaxFiles, agentKeyPath, u"LoggerMaxFiles", 10},
        {GetMALastCreatedJSONNum, monitoringKeyPath, u"MALastCreatedJSONNum", 1},
        {GetMALastCreatedZIPNum, monitoringKeyPath, u"MALastCreatedZIPNum", 1},
        {GetConfigInterval, monitoringKeyPath, u"configInterval", 30, "ConfigInterval"},
        {GetWriteInterval, monitoringKeyPath, u"writeInterval", 300, "WriteInterval"},
        {GetMaxFilesInDir, monitoringKeyPath, u"MaxFilesInDir", 1500, "MaxFilesInDir"},
        {GetMaxFilestobeSend, monitoringKeyPath, u"MaxFilestobeSend", 1, "MaxFilestobeSend"},
        {GetSysInfoInterval, monitoringKeyPath, u"SysInfoInterval", 55, "SysInfoInterval"},
        {GetDataCollectionTimeout, monitoringKeyPath, u"DataCollectionTimeout", 360, "DataCollectionTimeout"},
    };
    for (const auto& row : rows) {
        std::uint32_t number = 77;
        EXPECT_EQ(row.get(number), error::success);
        EXPECT_EQ(number, row.fallback) << row.logged;
        EXPECT_EQ(Logged(std::string("\t Get") + row.logged + " :: Not able to fetch the " + row.logged + ".\n"),
                  *row.logged != '\0');
        EXPECT_EQ(writeValue(root, row.key, row.name, u"4", RegistryType::dword), error::success);
        EXPECT_EQ(row.get(number) + number, 4U);
    }
    std::uint32_t number = 77;
    ASSERT_EQ(SetBytes(u"A", u"text", RawText(u"a long text", 2), RegistryType::text), error::success);
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"missing", number), error::fileNotFound);
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"text", number), error::moreData);
    EXPECT_EQ(number, 77U);
    ASSERT_EQ(SetBytes(u"A", u"short", "\x05", RegistryType::binary), error::success);
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"short", number) + number, 5U) << "the type is not checked";
}

}  // namespace

}  // namespace kv::test
