// The agent's settings over the real registry: sizes, placeholders, fallbacks and log lines.
#include "foundation/registry_store.h"
#include "tests/platform/registry_helpers.h"
#include "tests/support/test_agent.h"

namespace kv::test {

namespace {

using platform::ScopedOperations;

using RegistryStore = TestAgent;

constexpr RootKey root = RootKey::localMachine;

std::string RawText(std::u16string_view text, std::size_t terminatorBytes) {
    std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * 2);
    return bytes + std::string(terminatorBytes, '\0');
}

TEST_F(RegistryStore, WhatIsStoredForEachType) {
    const struct {
        const char* title;
        std::u16string_view data;
        RegistryType type;
        std::string bytes;
    } rows[] = {
        {"a text takes half of its terminator along", u"abc", RegistryType::text, RawText(u"abc", 1)},
        {"the placeholder is the empty text", u"--", RegistryType::text, RawText(u"", 1)},
        {"a list takes thirteen bytes", u"ab", RegistryType::multiText, RawText(u"ab", 13)},
        {"the placeholder is 0", u"--", RegistryType::dword, std::string(4, '\0')},
        {"a negative number", u"-2", RegistryType::dword, "\xFE\xFF\xFF\xFF"},
        {"the largest number", u"4294967295", RegistryType::dword, "\xFF\xFF\xFF\xFF"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(writeValue(root, u"A\\New\\Path", u"Value", row.data, row.type), error::success) << row.title;
        EXPECT_EQ(GetBytes(u"A\\New\\Path", u"Value"), row.bytes) << row.title;
    }
    for (const std::u16string_view notANumber : {u"12a", u"4294967296", u"-2147483649", u"0x10", u" 1"}) {
        EXPECT_EQ(writeValue(root, u"A", u"Number", notANumber, RegistryType::dword), error::invalidData);
    }
    EXPECT_EQ(GetBytes(u"A", u"Number"), "error 2") << "nothing was stored";
    EXPECT_EQ(writeValue(root, u"A", u"--", u"text", RegistryType::text), error::success);
    EXPECT_EQ(GetBytes(u"A", u""), RawText(u"text", 1));
    for (const char* line : {"writeValue :: going to add the value data as 0 value \n",
                             "\t Error code : 0, Error Message : ", "addRegistryKey:  Opened already existing key! \n",
                             "addRegistryKey:  Create registry key function successfull: 0 \n",
                             "writeValue :: going to add the (default) value \n"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
}

TEST_F(RegistryStore, TextsWhateverTheirTerminator) {
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
    }
    ASSERT_EQ(SetOCAgentKey(u"key \u00fc"), error::success);
    EXPECT_EQ(GetOCAgentKey(text), error::success);
    EXPECT_EQ(text, u"key \u00fc");
}

TEST_F(RegistryStore, WhatIsMissingClearsATextAndKeepsANumber) {
    ASSERT_EQ(SetBytes(u"A", u"text", RawText(u"a long text", 2), RegistryType::text), error::success);
    ASSERT_EQ(SetBytes(u"A", u"short", "\x05", RegistryType::binary), error::success);
    OptionalText text = u"default";
    EXPECT_EQ(ReadRegSZ(root, u"A", u"missing", text), error::fileNotFound);
    EXPECT_EQ(text, std::nullopt);
    std::uint32_t number = 77;
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"missing", number), error::fileNotFound);
    EXPECT_EQ(ReadDwordRegistryData(root, u"B", u"missing", number), error::fileNotFound);
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"text", number), error::moreData);
    EXPECT_EQ(number, 77U);
    EXPECT_TRUE(Logged("ReadDwordRegistryData: Error while reading DWORD value of missing : 2 \n"));
    EXPECT_TRUE(Logged("ReadDwordRegistryData: Error while opening registry key for B,missing : 2 \n"));
    EXPECT_EQ(ReadDwordRegistryData(root, u"A", u"short", number), error::success) << "the type is not checked";
    EXPECT_EQ(number, 5U);
}

TEST_F(RegistryStore, FailuresSayWhatWasTried) {
    RegistryOperations failing = Registry();
    failing.RegSetValueExW = [](auto&&...) { return error::diskFull; };
    const ScopedOperations scoped(failing);
    EXPECT_EQ(writeValue(root, u"A\\B", u"Name", u"Data", RegistryType::text), error::diskFull);
    EXPECT_FALSE(Logged("\t Error code : 0, Error Message : "));
    EXPECT_EQ(writeValue(root, u"A\\", u"Name", u"Data", RegistryType::text), error::invalidName);
    for (const char* line : {"\t writeValue:  Function WriteValue failure!:112\n", "\t writeValue:  Subkey: A\\B \n",
                             "\t writeValue:  Valuename: Name \n", "\t writeValue:  Valuedata: Data \n",
                             "\t writeValue:  Datatype: 1 \n", "\t Error code : 112, Error Message : ",
                             "addRegistryKey:  Create registry key \"A\\\" function failed: 123 \n",
                             "writeValue:  WriteValue failure during key creation! 123 \n"}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
}

TEST_F(RegistryStore, NumbersFallBackAndComeBack) {
    const struct {
        Error (*get)(std::uint32_t& out);
        std::u16string_view key;
        std::u16string_view name;
        std::uint32_t fallback;
        const char* logLine;
    } rows[] = {
        {GetLoggerMaxSize, agentKeyPath, u"LoggerMaxSize", 1000000, ""},
        {GetLoggerMaxFiles, agentKeyPath, u"LoggerMaxFiles", 10, ""},
        {GetMALastCreatedJSONNum, monitoringKeyPath, u"MALastCreatedJSONNum", 1, ""},
        {GetMALastCreatedZIPNum, monitoringKeyPath, u"MALastCreatedZIPNum", 1, ""},
        {GetConfigInterval, monitoringKeyPath, u"configInterval", 30, "ConfigInterval"},
        {GetMaxFilesInDir, monitoringKeyPath, u"MaxFilesInDir", 1500, "MaxFilesInDir"},
        {GetMaxFilestobeSend, monitoringKeyPath, u"MaxFilestobeSend", 1, "MaxFilestobeSend"},
        {GetSysInfoInterval, monitoringKeyPath, u"SysInfoInterval", 55, "SysInfoInterval"},
        {GetDataCollectionTimeout, monitoringKeyPath, u"DataCollectionTimeout", 360, "DataCollectionTimeout"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fallback);
        std::uint32_t number = 99;
        EXPECT_EQ(row.get(number), error::success);
        EXPECT_EQ(number, row.fallback);
        const std::string name = row.logLine;
        EXPECT_TRUE(name.empty() || Logged("\t Get" + name + " :: Not able to fetch the " + name + ".\n"));
        ASSERT_EQ(writeValue(root, row.key, row.name, u"4000000000", RegistryType::dword), error::success);
        EXPECT_EQ(row.get(number), error::success);
        EXPECT_EQ(number, 4000000000U);
    }
}

}  // namespace

}  // namespace kv::test
