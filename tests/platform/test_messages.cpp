// The system's texts for error numbers. How they read is the system's own.
#include <gtest/gtest.h>

#include "platform/backend.h"
#include "platform/messages.h"
#include "platform/wmi_status.h"

namespace platform::test {

namespace {

TEST(Messages, AreTheSystemsOrALibrarysOrNone) {
    InstallBackend();
    const std::optional<std::u16string> denied = Messages().FormatMessageW(error::accessDenied);
    ASSERT_TRUE(denied);
    EXPECT_FALSE(denied->empty());
    EXPECT_FALSE(Messages().FormatMessageW(wmi_status::invalidClass)) << "a library's";

    ModuleHandle texts = 0, again = 0, none = 0;
    EXPECT_NE(Messages().LoadLibraryW(u"no-such-library.dll", none), error::success);
    ASSERT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", texts), error::success);
    EXPECT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", again), error::success);
    EXPECT_EQ(texts, again);
    EXPECT_EQ(Messages().FormatModuleMessageW(texts, error::accessDenied), denied);
    EXPECT_FALSE(Messages().FormatModuleMessageW(texts, 0x8FFFFFFF));
    EXPECT_FALSE(Messages().FormatModuleMessageW(none, error::accessDenied));
}

}  // namespace

}  // namespace platform::test
