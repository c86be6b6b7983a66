// The lab's page as a browser shows it.
#include <gmock/gmock.h>

#include "tests/lab/browser.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

class PageInBrowser : public Lab {
  protected:
    Browser browser;
};

TEST_F(PageInBrowser, FitsItsView) {
    for (const int width : {1280, 400}) {
        SCOPED_TRACE(width);
        browser.SetView(width, 900);
        browser.Open(server->address());
        EXPECT_EQ(browser.Run("return window.innerWidth"), std::to_string(width));
        EXPECT_EQ(browser.Run("return document.documentElement.scrollWidth - window.innerWidth"), "0");
    }
}

}  // namespace

}  // namespace kv::lab::test
