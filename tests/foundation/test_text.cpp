// Text, time and Base64: pure helpers, driven by tables.
#include <gtest/gtest.h>
#include <string>

#include "foundation/proxy_password.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "platform/backend.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

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
        {"bytes above 127", u"w6T/", u"\u00c3\u00a4\u00ff"},
        {"text after the padding is not looked at", u"YQ==YWJj", u"a"},
        {"white space inside", u"YW Jj", u""},
        {"padding too early", u"Y===", u""},
    };
    for (const auto& row : rows) EXPECT_TRUE(DecodeBase64(row.text) == row.bytes) << row.title;
    for (const std::u16string text : {u"", u"a", u"ab", u"abc", u"\u00ff\u0000x", u"long enough for some groups"})
        EXPECT_TRUE(DecodeBase64(*EncodeBase64(text)) == text);
    EXPECT_EQ(EncodeBase64(u"\u0100"), std::nullopt);
}

}  // namespace
}  // namespace kv
