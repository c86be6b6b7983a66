// Services that are waited for, in virtual time.
#include <algorithm>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "exchange/service_control.h"
#include "tests/support/fake_services.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

TEST(ServiceControl, WaitsAsTheServiceSaysAndEndsWithTheFirstFailure) {
    using enum platform::ServiceState;
    using Operation = bool (*)(std::u16string_view);
    constexpr auto start = StartServiceAndWait, stop = StopServiceAndWait;
    constexpr std::uint32_t ever = UINT32_MAX;
    const std::vector<std::u16string> five = {u"B", u"C", u"D", u"E", u"F"};
    const struct {
        const char* title;
        Operation operation;
        FakeService service;
        const char* result;  // and the sleeps
        std::uint32_t dTakes = 2000;
    } rows[] = {
        {"start with dependents", start, {.dependents = five}, "false"},
        {"five dependents", stop, {.state = running, .dependents = five}, "true 13x1000"},
        {"start", start, {}, "true 3x1000"},
        {"start of one that runs", start, {.state = running}, "false"},
        {"start that fails", start, {.startsTo = stopped}, "false 3x1000"},
        {"start that takes too long", start, {.takes = 30500}, "false 31x1000"},
        {"start that never ends", start, {.takes = ever}, "false 31x1000"},
        {"hint 5000", start, {.pending = stopPending, .waitHint = 5000}, "true 3x1000 1x5000"},
        {"hint 200000", start, {.pending = stopPending, .waitHint = 200000}, "false 1x10000 1x200000"},
        {"hint without end", start, {.takes = ever, .waitHint = ever}, "false 1x3600000"},
        {"stuck, no end", start, {.pending = stopPending, .takes = ever, .waitHint = ever}, "false 361x10000"},
        {"progress", start, {stopped, stopPending, 12000, 5000, 4000}, "true 12x1000 3x5000"},
        {"progress that ends", start, {stopped, stopPending, ever, 5000, 4000}, "false 14x1000"},
        {"stop", stop, {.state = running}, "true 3x1000"},
        {"stop that never ends", stop, {.state = running, .takes = ever}, "false 31x1000"},
        {"stop of a stopped one", stop, {}, "false"},
        {"stop of a stopping one", stop, {.pending = stopPending}, "false"},
        {"one stuck", stop, {.state = running, .dependents = five}, "false 31x1000", ever},
        {"pause", PauseServiceAndWait, {.state = running}, "true 3x1000"},
        {"pause of a paused one", PauseServiceAndWait, {.state = paused}, "false"},
        {"continue", ContinueServiceAndWait, {.state = paused}, "true 3x1000"},
    };
    VirtualClock clock;
    FakeServices fake;
    const auto run = [&](const auto& row) {
        for (const auto& name : five)
            fake.services[name] = {.state = running, .takes = name == u"D" ? row.dTakes : 2000};
        FakeService& service = fake.services[u"A"] = row.service;
        if (service.pending == stopPending) service.since = platform::Clock().GetTickCount64();
        std::vector<std::pair<int, std::uint32_t>> sleeps;
        clock.onSleep = [&](std::uint32_t milliseconds) {
            if (sleeps.empty() || sleeps.back().second != milliseconds) sleeps.emplace_back(0, milliseconds);
            ++sleeps.back().first;
        };
        fake.calls.clear();
        std::string result = fmt::format("{}", row.operation(u"A"));
        for (const auto& [count, milliseconds] : sleeps) result += fmt::format(" {}x{}", count, milliseconds);
        EXPECT_FALSE(fake.hasOpenHandles());
        return result;
    };
    std::string survived;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        EXPECT_EQ(run(row), row.result);
        std::vector<std::string> calls = fake.calls;
        calls.resize(std::min<std::size_t>(calls.size(), 60));  // what follows is more of the same
        for (auto call = calls.begin(); call != calls.end(); ++call) {
            fake.failing = *call;
            fake.passing = std::count(calls.begin(), call, *call);
            if (run(row).starts_with("true")) survived += *call + " ";
        }
        fake.failing.clear();
    }
    EXPECT_EQ(survived, "QueryServiceStatusEx(F) EnumDependentServicesW(A) ") << "of stops without active dependents";
    run(rows[0]);
    EXPECT_EQ(fmt::format("{}", fmt::join(fake.calls, " ")),
              "OpenSCManagerW() OpenServiceW() QueryServiceStatusEx(A) EnumDependentServicesW(A) "
              "EnumDependentServicesW(A) OpenServiceW() StartServiceW(A) QueryServiceStatusEx(B) OpenServiceW() "
              "StartServiceW(A)");
    run(rows[3]);
    EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "StartServiceW(A)"), 0) << "systemd would start it";
    run(rows[2]);
    EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "EnumDependentServicesW(A)"), 1);
    fake.failing = "ControlService(B)";
    fake.passing = 0;
    fake.failure = platform::error::serviceNotActive;
    EXPECT_EQ(run(rows[1]), "false 8x1000") << "the other four are stopped all the same";
}

}  // namespace kv::test
