// Starts, stops and pauses that wait for the service, in virtual time.
#include <algorithm>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "exchange/service_control.h"
#include "tests/support/fake_services.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using enum platform::ServiceState;

constexpr std::uint32_t never = UINT32_MAX;

struct Row {
    const char* title;
    bool (*operation)(std::u16string_view);
    FakeService service;
    const char* outcome;            // the result and the sleeps, each as "3x1000": three times 1000 milliseconds
    std::uint32_t takesOfD = 2000;  // milliseconds that the dependent D takes
};

/// The service A. Five others depend on it in some rows.
struct ServiceControl : ::testing::Test {
    /// Runs a row on services in their first state; its outcome.
    std::string RunRow(const Row& row) {
        for (const auto& name : five)
            fake.services[name] = {.state = running, .takes = name == u"D" ? row.takesOfD : 2000};
        FakeService& service = fake.services[u"A"] = row.service;
        if (service.pending == stopPending) service.since = platform::Clock().GetTickCount64();
        std::vector<std::pair<int, std::uint32_t>> sleeps;
        clock.onSleep = [&](std::uint32_t milliseconds) {
            if (sleeps.empty() || sleeps.back().second != milliseconds) sleeps.emplace_back(0, milliseconds);
            ++sleeps.back().first;
        };
        fake.calls.clear();
        std::string outcome = row.operation(u"A") ? "true" : "false";
        for (const auto& [count, milliseconds] : sleeps) outcome += fmt::format(" {}x{}", count, milliseconds);
        EXPECT_FALSE(fake.hasOpenHandles()) << row.title;
        return outcome;
    }

    const std::vector<std::u16string> five = {u"B", u"C", u"D", u"E", u"F"};
    const Row startOne = {"start", StartServiceAndWait, {}, "true 3x1000"};
    const Row startWithDependents = {"start with dependents", StartServiceAndWait, {.dependents = five}, "false"};
    const Row startOfAStopping = {
        "hint 5000", StartServiceAndWait, {.pending = stopPending, .waitHint = 5000}, "true 3x1000 1x5000"};
    const Row stopWithDependents = {
        "five dependents", StopServiceAndWait, {.state = running, .dependents = five}, "true 13x1000"};

    VirtualClock clock;
    FakeServices fake;
};

TEST_F(ServiceControl, WaitsAsLongAsTheServiceTells) {
    const FakeService slowStop{.pending = stopPending, .takes = 12000, .waitHint = 5000, .checkPointEvery = 4000};
    FakeService endlessStop = slowStop;
    endlessStop.takes = never;
    const Row rows[] = {
        startWithDependents,
        startOne,
        {"start of a running one", StartServiceAndWait, {.state = running}, "false"},
        {"start that fails", StartServiceAndWait, {.startsTo = stopped}, "false 3x1000"},
        {"start that takes too long", StartServiceAndWait, {.takes = 30500}, "false 31x1000"},
        {"start that never ends", StartServiceAndWait, {.takes = never}, "false 31x1000"},
        startOfAStopping,
        {"hint 200000", StartServiceAndWait, {.pending = stopPending, .waitHint = 200000}, "false 1x10000 1x200000"},
        {"endless hint", StartServiceAndWait, {.takes = never, .waitHint = never}, "false 1x3600000"},
        {"endless hint while it stops",
         StartServiceAndWait,
         {.pending = stopPending, .takes = never, .waitHint = never},
         "false 361x10000"},
        {"start after a slow stop", StartServiceAndWait, slowStop, "true 12x1000 3x5000"},
        {"start after a stop without progress", StartServiceAndWait, endlessStop, "false 14x1000"},
        stopWithDependents,
        {"stop", StopServiceAndWait, {.state = running}, "true 3x1000"},
        {"stop that never ends", StopServiceAndWait, {.state = running, .takes = never}, "false 31x1000"},
        {"stop of a stopped one", StopServiceAndWait, {}, "false"},
        {"stop of a stopping one", StopServiceAndWait, {.pending = stopPending}, "false"},
        {"one dependent stuck", StopServiceAndWait, {.state = running, .dependents = five}, "false 31x1000", never},
        {"pause", PauseServiceAndWait, {.state = running}, "true 3x1000"},
        {"pause of a paused one", PauseServiceAndWait, {.state = paused}, "false"},
        {"continue", ContinueServiceAndWait, {.state = paused}, "true 3x1000"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        EXPECT_EQ(RunRow(row), row.outcome);
    }
}

TEST_F(ServiceControl, EndsAtAnyCallThatFails) {
    const Row stopOne = {"stop", StopServiceAndWait, {.state = running}, "true 3x1000"};
    std::string survived;
    for (const Row& row : {startOne, startOfAStopping, stopOne, stopWithDependents}) {
        fake.failing.clear();
        EXPECT_EQ(RunRow(row), row.outcome) << row.title;
        const std::vector<std::string> calls = fake.calls;
        for (auto call = calls.begin(); call != calls.end(); ++call) {
            fake.failing = *call;
            fake.passing = std::count(calls.begin(), call, *call);
            if (RunRow(row).starts_with("true")) survived += *call + " ";
        }
    }
    EXPECT_EQ(survived, "EnumDependentServicesW(A) QueryServiceStatusEx(F) ")
        << "calls that a stop without active dependents can miss";
}

TEST_F(ServiceControl, StopsTheOtherDependentsWhenOneStopsByItself) {
    fake.failing = "ControlService(B)";
    fake.failure = platform::error::serviceNotActive;
    EXPECT_EQ(RunRow(stopWithDependents), "false 8x1000");
}

TEST_F(ServiceControl, StartsTheDependentsOfAService) {
    RunRow(startWithDependents);
    EXPECT_EQ(fmt::format("{}", fmt::join(fake.calls, " ")),
              "OpenSCManagerW() OpenServiceW() QueryServiceStatusEx(A) EnumDependentServicesW(A) "
              "EnumDependentServicesW(A) OpenServiceW() StartServiceW(A) QueryServiceStatusEx(B) OpenServiceW() "
              "StartServiceW(A)");
}

TEST_F(ServiceControl, AsksOnceForDependentsAndDoesNotStartARunningService) {
    RunRow({"start of a running one", StartServiceAndWait, {.state = running}, "false"});
    EXPECT_THAT(fake.calls, testing::Not(testing::Contains("StartServiceW(A)"))) << "systemd would queue the start";
    RunRow(startOne);
    EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "EnumDependentServicesW(A)"), 1);
}

}  // namespace
}  // namespace kv::test
