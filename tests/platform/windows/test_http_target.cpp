// Where a redirect leads.
#include <gtest/gtest.h>

#include "platform/windows/http_target.h"

namespace platform::test {
namespace {

TEST(HttpTarget, ARedirectIsRelativeToWhereItCameFrom) {
    const HttpTarget from{.secure = true, .host = L"server", .port = 8443, .path = L"/a/b?q=/1"};
    const struct {
        const char* title;
        std::wstring location;
        std::wstring expected;  // host, port and path; empty: not followed
    } rows[] = {
        {"another server", L"https://other.example/x?y#z", L"other.example 443 /x?y"},
        {"the same scheme", L"//other.example:5/x", L"other.example 5 /x"},
        {"a name in the same folder", L"c d", L"server 8443 /a/c%20d"},
        {"a query", L"?u=http://k/", L"server 8443 /a/b?u=http://k/"},
        {"a host that cannot be one", L"https://b c/", L""},
    };
    for (const auto& row : rows) {
        const auto to = RedirectedTarget(from, row.location);
        EXPECT_EQ(to ? to->host + L" " + std::to_wstring(to->port) + L" " + to->path : L"", row.expected) << row.title;
    }
}

}  // namespace
}  // namespace platform::test
