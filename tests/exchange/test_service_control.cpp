// Services that are waited for, in virtual time.
#include <algorithm>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "exchange/service_control.h"
#include "tests/support/fake_services.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using enum platform::ServiceState;
using ::testing::Contains;
using ::testing::Not;

constexpr std::uint32_t never = UINT32_MAX;

struct Row {
    const char* title;
    bool (*operation)(std::u16string_view);
    FakeService service;
    const char* outcome;  // the result, and how often it slept how many milliseconds
    std::uint32_t dTakes = 2000;
};

/// Service "A", and five more that depend on it where a row says so.
struct ServiceControl : ::testing::Test {
    std::string OutcomeOf(const Row& row) {
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

TEST_F(ServiceControl, WaitsAsTheServiceSays) {
    const FakeService slowStop{.pending = stopPending, .takes = 12000, .waitHint = 5000, .checkPointEvery = 4000};
    FakeService endlessStop = slowStop;
    endlessStop.takes = never;
    const Row rows[] = {
        startWithDependents,
        startOne,
        {"start of one that runs", StartServiceAndWait, {.state = running}, "false"},
        {"start that fails", StartServiceAndWait, {.startsTo = stopped}, "false 3x1000"},
        {"start that takes too long", StartServiceAndWait, {.takes = 30500}, "false 31x1000"},
        {"start that never ends", StartServiceAndWait, {.takes = never}, "false 31x1000"},
        startOfAStopping,
        {"hint 200000", StartServiceAndWait, {.pending = stopPending, .waitHint = 200000}, "false 1x10000 1x200000"},
        {"hint without end", StartServiceAndWait, {.takes = never, .waitHint = never}, "false 1x3600000"},
        {"stuck, no end",
         StartServiceAndWait,
         {.pending = stopPending, .takes = never, .waitHint = never},
         "false 361x10000"},
        {"progress", StartServiceAndWait, slowStop, "true 12x1000 3x5000"},
        {"progress that ends", StartServiceAndWait, endlessStop, "false 14x1000"},
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
        EXPECT_EQ(OutcomeOf(row), row.outcome);
    }
}

TEST_F(ServiceControl, AnyCallThatFailsEndsIt) {
    const Row stopOne = {"stop", StopServiceAndWait, {.state = running}, "true 3x1000"};
    std::string survived;
    for (const Row& row : {startOne, startOfAStopping, stopOne, stopWithDependents}) {
        fake.failing.clear();
        EXPECT_EQ(OutcomeOf(row), row.outcome) << row.title;
        const std::vector<std::string> calls = fake.calls;
        for (auto call = calls.begin(); call != calls.end(); ++call) {
            fake.failing = *call;
            fake.passing = std::count(calls.begin(), call, *call);
            if (OutcomeOf(row).starts_with("true")) survived += *call + " ";
        }
    }
    EXPECT_EQ(survived, "EnumDependentServicesW(A) QueryServiceStatusEx(F) ") << "of stops without active dependents";
}

TEST_F(ServiceControl, DependentsThatStopByThemselvesAreNoFailure) {
    fake.failing = "ControlService(B)";
    fake.failure = platform::error::serviceNotActive;
    EXPECT_EQ(OutcomeOf(stopWithDependents), "false 8x1000") << "the other four are stopped all the same";
}

TEST_F(ServiceControl, StartsWhatDependsOnAServiceAfterIt) {
    OutcomeOf(startWithDependents);
    EXPECT_EQ(fmt::format("{}", fmt::join(fake.calls, " ")),
              "OpenSCManagerW() OpenServiceW() QueryServiceStatusEx(A) EnumDependentServicesW(A) "
              "EnumDependentServicesW(A) OpenServiceW() StartServiceW(A) QueryServiceStatusEx(B) OpenServiceW() "
              "StartServiceW(A)");
}

TEST_F(ServiceControl, AsksOnceForDependentsAndStartsNothingThatRuns) {
    OutcomeOf({"start of one that runs", StartServiceAndWait, {.state = running}, "false"});
    EXPECT_THAT(fake.calls, Not(Contains("StartServiceW(A)"))) << "systemd would start it";
    OutcomeOf(startOne);
    EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "EnumDependentServicesW(A)"), 1);
}

}  // namespace
}  // namespace kv::test
