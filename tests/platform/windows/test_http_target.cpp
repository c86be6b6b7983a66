// Where a redirect leads.
#include <gtest/gtest.h>
#include <tuple>

#include "platform/windows/http_target.h"

namespace platform::test {
namespace {

TEST(HttpTarget, ARedirectIsRelativeToItsRequest) {
    const HttpTarget from{.secure = true, .host = L"server", .port = 8443, .path = L"/a/b?q=/1"};
    const std::tuple<const char*, std::wstring, std::wstring> rows[] = {
        {"another server", L"https://other.example/x?y#z", L"other.example 443 /x?y"},
        {"the same scheme", L"//other.example:5/x", L"other.example 5 /x"},
        {"a name in the same folder", L"c d", L"server 8443 /a/c%20d"},
        {"a query", L"?u=http://k/", L"server 8443 /a/b?u=http://k/"},
        {"an invalid host", L"https://b c/", L""},
    };
    for (const auto& [title, location, expected] : rows) {
        const auto to = RedirectedTarget(from, location);
        EXPECT_EQ(to ? to->host + L" " + std::to_wstring(to->port) + L" " + to->path : L"", expected) << title;
    }
}

}  // namespace
}  // namespace platform::test
