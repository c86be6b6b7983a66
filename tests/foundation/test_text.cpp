// Text, time and Base64.
#include <gtest/gtest.h>
#include <tuple>

#include "foundation/host_utils.h"
#include "foundation/proxy_password.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/backend.h"
#include "platform/crypto.h"
#include "platform/system_facts.h"
#include "tests/support/replaced.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

TEST(Time, PrintsTheClock) {
    platform::InstallBackend();
    test::VirtualClock clock;  // 2026-03-05 09:05:07
    EXPECT_STREQ(GetTimeString(0), "09:05:07 pm");
    EXPECT_STREQ(GetCurrDateString(), "05-03-26");
    clock.AdvanceMilliseconds(8 * 3600 * 1000);
    EXPECT_STREQ(GetTimeString(0), "05:05:07 pm");
    EXPECT_STREQ(GetTimeString(1), "17:05:07");
    GetAgentStartUpTime();
    clock.AdvanceMilliseconds(61500);
    EXPECT_EQ(GetUpTimeSeconds(0), 61);
    EXPECT_EQ(GetUpTimeSeconds(1), 6100);
}

TEST(Text, IsComparedParsedAndConverted) {
    OptionalText copy;
    EXPECT_EQ(AllocateAndDoStrcpy(copy, ConcatStrings(u"a", u"b")), 1);
    EXPECT_EQ(copy, u"ab");
    EXPECT_EQ(SubString(u"aBab", u"ab"), 2U);
    EXPECT_EQ(SubString(u"ab", u"abc"), std::u16string::npos);
    EXPECT_EQ(FindChar(u"ab", u'b'), 1U);
    EXPECT_EQ(CountChar(u"aaba", 3, u'a'), 2);
    EXPECT_EQ(ReplaceChar(*copy, u'a', u'b'), u"bb");
    EXPECT_EQ(ChangeUtf8ToWideStr(nullptr, *copy) + ChangeUtf8ToWideStr("\xC3", *copy), 0);
    EXPECT_EQ(copy, u"bb");
    EXPECT_EQ(ChangeUtf8ToWideStr("\xC3\xA4", *copy), 1);
    std::string narrow;
    EXPECT_TRUE(ChangeWideToUtf8Str(*copy, narrow));
    EXPECT_FALSE(ChangeWideToUtf8Str(u"\xD800", narrow));
    EXPECT_EQ(narrow, "\xC3\xA4");
    const std::pair<const char16_t*, std::int32_t> numbers[] = {
        {u"-12", -12}, {u"12a", -1}, {u"+7", 7}, {u"", 0}, {u"9999999999", INT32_MAX}, {u"-9999999999", INT32_MIN}};
    for (const auto& [text, number] : numbers) EXPECT_EQ(ParseDecimal(text), number);
    EXPECT_EQ(CompareIgnoreCase(u"ABC", u"abc"), 0);
    EXPECT_EQ(CompareIgnoreCase(u"aB", u"Ac"), u'b' - u'c');
    EXPECT_EQ(CompareIgnoreCase(u"Z", u"["), u'z' - u'[') << "folded to lower case";
    EXPECT_LT(CompareIgnoreCase(std::nullopt, u""), 0);
    EXPECT_EQ(CompareIgnoreCase(std::nullopt, std::nullopt), 0);
    EXPECT_STREQ(FormatTwoDigits(1907), "07");
}

TEST(SystemNames, FollowFamilyAndVersion) {
    using enum platform::SystemFamily;
    enum Traits { plain = 0, workstation = 1, amd64 = 2, secondEdition = 4 };
    const std::tuple<platform::SystemFamily, std::uint32_t, std::uint32_t, int, const char16_t*> rows[] = {
        {nt, 6, 1, workstation, u"Windows 7"},
        {nt, 6, 1, amd64, u"Windows 2008 R2"},
        {nt, 6, 0, workstation, u"Windows Vista"},
        {nt, 6, 0, plain, u"Windows 2008"},
        {nt, 5, 2, workstation | amd64, u"Windows XP"},
        {nt, 5, 2, workstation, u"Windows 2003"},
        {nt, 5, 2, amd64, u"Windows 2003"},
        {nt, 5, 1, plain, u"Windows XP"},
        {nt, 5, 0, plain, u"Windows 2000"},
        {nt, 4, 0, plain, u"Windows NT"},
        {win9x, 4, 0, plain, u"Windows 95"},
        {win9x, 4, 10, secondEdition, u"Windows 98 SE"},
        {win9x, 4, 10, plain, u"Windows 98"},
        {win9x, 4, 90, plain, u"Windows Millennium Edition\n"},
        {win32s, 3, 10, plain, u"Win32s\n"},
        {nt, 10, 0, workstation, u"its own name"},
    };
    for (const auto& [family, major, minor, traits, name] : rows) {
        const platform::SystemVersion facts{family,
                                            major,
                                            minor,
                                            traits & secondEdition ? u" A" : u"",
                                            (traits & workstation) != 0,
                                            (traits & amd64) != 0,
                                            u"its own name"};
        const test::Replaced replaced(&platform::SystemFactOperations::GetVersionExW, [&facts](auto& version) {
            version = facts;
            return platform::error::success;
        });
        EXPECT_EQ(GetOSName(), name);
    }
}

TEST(Hosts, AreFoundByAnAddressBeforeABlank) {
    platform::InstallBackend();
    OptionalText name, address;
    EXPECT_TRUE(GetRemoteHostDetails(u"127.0.0.1 ", name, address));
    EXPECT_EQ(address, u"127.0.0.1");
}

TEST(SystemErrors, HaveTheTextsThatTheSystemLacks) {
    const std::pair<platform::Error, const char16_t*> rows[] = {
        {17021, u"OfficeUpdateError: Creating temp folder."},
        {17303, u"OfficeUpdateError: Extracting file."},
        {0xFFFFFFFF, u"Unknown Error. Code : -1"},
    };
    platform::InstallBackend();
    for (const auto& [code, text] : rows) EXPECT_EQ(LogSystemError(code), text);
}

TEST(Base64, DecodesAndRefuses) {
    const std::tuple<const char*, const char16_t*, std::u16string> rows[] = {
        {"bytes above 127", u"w6T/", u"\u00c3\u00a4\u00ff"},
        {"text after the padding is ignored", u"YQ==YWJj", u"a"},
        {"white space inside", u"YW Jj", u""},
        {"padding too early", u"Y===", u""},
    };
    for (const auto& [title, text, bytes] : rows) EXPECT_TRUE(DecodeBase64(text) == bytes) << title;
    for (const std::u16string text : {u"", u"a", u"ab", u"abc", u"\u00ff\u0000x", u"long enough for some groups"})
        EXPECT_TRUE(DecodeBase64(*EncodeBase64(text)) == text);
    EXPECT_EQ(EncodeBase64(u"\u0100"), std::nullopt);
}

TEST(Passphrase, LeavesTheTextWithoutAProvider) {
    const test::Replaced crypto(&platform::CryptoOperations::CryptAcquireContextW,
                                [](auto&&...) { return platform::error::notSupported; });
    std::u16string out = u"before";
    EXPECT_EQ(EncryptWithPassphrase(u"abc", out, u"key"), 1);
    DecryptWithPassphrase(u"abc", out, u"key");
    EXPECT_EQ(out, u"before");
}

}  // namespace
}  // namespace kv
