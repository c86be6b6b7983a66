// Text, time, Base64, system names and error texts: pure helpers, driven by tables.
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "foundation/host_utils.h"
#include "foundation/proxy_password.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/backend.h"
#include "platform/messages.h"
#include "platform/system_facts.h"
#include "platform/utf.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

TEST(Text, ParsesDecimals) {
    const struct {
        const char16_t* text;
        std::int32_t number;
    } rows[] = {
        {u"-12", -12},
        {u"12a", -1},
        {u"--1", -1},
        {u"2147483648", 2147483647},
        {u"99999999999999999999999", 2147483647},
        {u"\u0661", -1},
    };
    for (const auto& row : rows) EXPECT_EQ(ParseDecimal(row.text), row.number) << platform::Utf8FromWide(row.text);
}

TEST(Text, ComparesWithoutRegardToAsciiCase) {
    using Text = std::optional<std::u16string_view>;
    const struct {
        const char* title;
        Text a, b;
        int sign;
    } rows[] = {
        {"same but for case", u"ABC", u"abc", 0},
        {"between the cases of letters", u"Z", u"_", 1},  // '_' lies between 'Z' and 'z'
        {"beyond ASCII case counts", u"\u00c4", u"\u00e4", -1},
        {"none before empty", std::nullopt, u"", -1},
    };
    for (const auto& row : rows) {
        const int difference = CompareIgnoreCase(row.a, row.b);
        EXPECT_EQ((difference > 0) - (difference < 0), row.sign) << row.title;
    }
}

TEST(Text, ConversionLeavesTheOutputAloneWhenItFails) {
    std::u16string wide = u"before";
    for (const char* refused : {static_cast<const char*>(nullptr), "\xC3("})
        EXPECT_EQ(ChangeUtf8ToWideStr(refused, wide), 0);
    EXPECT_EQ(wide, u"before");
    std::string narrow = "before";
    EXPECT_FALSE(ChangeWideToUtf8Str(std::u16string(1, char16_t{0xD800}), narrow));
    EXPECT_EQ(narrow, "before");
    EXPECT_TRUE(ChangeWideToUtf8Str(u"\U0001F600", narrow) && ChangeUtf8ToWideStr(narrow.c_str(), wide));
    EXPECT_EQ(wide, u"\U0001F600");
}

TEST(Time, PrintsTheClock) {
    platform::InstallBackend();
    test::VirtualClock clock;  // 2026-03-05 09:05:07
    EXPECT_STREQ(GetTimeString(0), "09:05:07 pm");
    EXPECT_STREQ(GetCurrDateString(), "05-03-26");
    clock.advanceMilliseconds(8 * 3600 * 1000);
    EXPECT_STREQ(GetTimeString(0), "05:05:07 pm");
    EXPECT_STREQ(GetTimeString(1), "17:05:07");
    GetAgentStartUpTime();
    clock.advanceMilliseconds(61500);
    EXPECT_EQ(GetUpTimeSeconds(0), 61);
    EXPECT_EQ(GetUpTimeSeconds(1), 6100);
}

TEST(Base64, DecodesAndRefuses) {
    const struct {
        const char* title;
        const char16_t* text;
        std::u16string bytes;
    } rows[] = {
        {"white space around", u" \r\nYWJj\t\n", u"abc"},
        {"bytes above 127", u"w6T/", u"\u00c3\u00a4\u00ff"},
        {"text after the padding is not looked at", u"YQ==YWJj", u"a"},
        {"white space inside", u"YW Jj", u""},
        {"character above 127", u"YWJ\u00e4", u""},
        {"padding too early", u"Y===", u""},
    };
    for (const auto& row : rows) EXPECT_TRUE(DecodeBase64(row.text) == row.bytes) << row.title;
    for (const std::u16string text : {u"", u"a", u"ab", u"abc", u"\u00ff\u0000x", u"long enough for some groups"})
        EXPECT_TRUE(DecodeBase64(*EncodeBase64(text)) == text);
    EXPECT_EQ(EncodeBase64(u"\u0100"), std::nullopt);
}

TEST(SystemName, FollowsTheTable) {
    using platform::SystemFamily;
    platform::InstallBackend();
    const struct {
        platform::SystemVersion version;
        std::u16string name;
    } rows[] = {
        {{SystemFamily::nt, 6, 1, u"", false, true, u"plain"}, u"Windows 2008 R2"},
        {{SystemFamily::nt, 5, 2, u"", true, true, u""}, u"Windows XP"},
        {{SystemFamily::nt, 5, 2, u"", true, false, u""}, u"Windows 2003"},
        {{SystemFamily::win9x, 4, 10, u" A", true, false, u""}, u"Windows 98 SE"},
        {{SystemFamily::other, 6, 1, u"", false, true, u"Debian 12"}, u"Debian 12"},
    };
    platform::SystemFactOperations facts = platform::SystemFacts();
    for (const auto& row : rows) {
        facts.GetVersionExW = [&row](auto& version) { return version = row.version, platform::error::success; };
        const platform::ScopedOperations scoped(facts);
        EXPECT_TRUE(GetOSName() == row.name) << platform::Utf8FromWide(row.name);
    }
}

TEST(SystemErrorText, FallsBackToTheUpdateTexts) {
    const platform::ScopedOperations scoped(platform::MessageOperations{
        [](platform::Error code) { return code == 5 ? std::optional<std::u16string>(u"denied") : std::nullopt; }});
    EXPECT_EQ(LogSystemError(5), u"denied");
    EXPECT_EQ(LogSystemError(17029), u"OfficeUpdateError: Patch failed to install.");
    EXPECT_EQ(LogSystemError(4711), u"Unknown Error. Code : 4711");
}

}  // namespace
}  // namespace kv
