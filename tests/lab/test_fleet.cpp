// A fleet of agents against a real server of the lab.
#include <gmock/gmock.h>
#include <thread>
#include <utility>

#include "lab/fleet/fleet.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

/// Each agent uploads every half second.
FleetOptions OptionsFor(const std::string& address, int agents, int seconds) {
    return {address, "", "FLEET", agents, 600, seconds, 6};
}

FleetReport RunForASecond(const std::string& address) {
    return RunFleet(
        OptionsFor(address, 3, 1), [](const FleetReport&) {}, [] { return false; });
}

class FleetAgainstLab : public LabOnEach {
  protected:
    /// Runs until so many zips were accepted, or for a minute, and waits for all answers.
    FleetReport RunUntil(std::int64_t accepted) const {
        std::int64_t seen = 0;
        return RunFleet(
            OptionsFor(Address(), 4, 60), [&](const FleetReport& report) { seen = report.acceptedZips; },
            [&, isOver = false]() mutable { return seen >= accepted && !std::exchange(isOver, true); });
    }
    std::string Address() const { return "http://127.0.0.1:" + std::to_string(server->port()); }
};

TEST_P(FleetAgainstLab, LosesNothingWhateverTheServerDoes) {
    AddFault(store, {0, "FileCollector", FaultKind::status, 503, 1});
    AddFault(store, {0, "FileCollector", FaultKind::drop, 0, 1});
    AddFault(store, {0, "FileCollector", FaultKind::cut, 0, 1});
    AddFault(store, {0, "DataAgentHandlerServlet", FaultKind::status, 500, 1});
    const FleetReport report = RunUntil(8);
    EXPECT_EQ(report.registrations.failed(), 0);
    EXPECT_EQ(report.requestLists.failed(), 1);
    EXPECT_EQ(report.uploads.failed(), 3) << "and sent again";
    EXPECT_EQ(report.lost(), 0);
    EXPECT_EQ(report.zipsHeld, CountAll(store).zips);
    EXPECT_GE(*report.zipsHeld, report.acceptedZips) << "one was stored and half of its answer came";
    EXPECT_EQ(Agents(store).size(), 4U);
    EXPECT_EQ(CountAll(store).records, CountAll(store).zips * 6);
    EXPECT_EQ(QueryNumber(*store.database, "SELECT count(*) FROM record WHERE failed = 1"), 0);
    EXPECT_EQ(QueryNumber(*store.database, "SELECT count(*) FROM source WHERE device <> ''"), 4) << "their switches";
}

TEST_P(FleetAgainstLab, TellsWhatIsLost) {
    std::thread forgetful([this] {
        Store own = OpenStore(database);
        EXPECT_TRUE(Happens([&own] { return CountAll(own).zips >= 4; }));
        Execute(*own.database, "DELETE FROM record WHERE delivery <= 2");
        Execute(*own.database, "DELETE FROM delivery WHERE number <= 2");
    });
    const FleetReport report = RunUntil(8);
    forgetful.join();
    EXPECT_EQ(report.lost(), 2);
}

TEST_P(FleetAgainstLab, SaysThatItStops) {
    const FleetReport report = RunForASecond(Address());
    EXPECT_EQ(report.stops.count(), 3);
    for (const Agent& agent : Agents(store)) EXPECT_EQ(agent.status, "AGENT_DOWN");
}

INSTANTIATE_TEST_SUITE_P(Database, FleetAgainstLab, eachKind, KindName);

class Fleet : public kv::test::TestAgent {};

TEST_F(Fleet, SaysThatNobodyAnswers) {
    const FleetReport report = RunForASecond("http://127.0.0.1:1");
    EXPECT_EQ(report.registrations.failed(), 3);
    EXPECT_EQ(report.acceptedZips, 0);
    EXPECT_GE(report.waitingZips, 3);
    EXPECT_FALSE(report.zipsHeld);
}

}  // namespace

}  // namespace kv::lab::test
