// The model explored, and the agent's own routines run along its traces. KV_MODEL_DEPTH=2 does both to a depth that
// takes minutes; KV_MODEL_SEED chooses other random traces.
#include <cstdlib>
#include <iostream>
#include <random>

#include "tests/long/stepped_agent.h"

namespace kv::test {

namespace {

using namespace model;

unsigned NumberOf(const char* variable, unsigned fallback) {
    const char* text = std::getenv(variable);
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : fallback;
}

bool GoesDeep() { return NumberOf("KV_MODEL_DEPTH", 1) > 1; }

TEST(Model, KeepsItsPromiseInEveryState) {
    std::vector<Limits> rows{{.records = 3, .zips = 2, .plans = 0, .crashes = 2},
                             {.records = 1, .zips = 1, .plans = 2, .crashes = 2},
                             {.records = 2, .zips = 2, .plans = 1, .crashes = 1}};
    if (GoesDeep())
        rows = {{.records = 4, .zips = 3, .plans = 0, .crashes = 3},
                {.records = 3, .zips = 3, .plans = 1, .crashes = 2},
                {.records = 1, .zips = 2, .plans = 4, .crashes = 3}};
    for (const Limits& limits : rows) {
        const Exploration all = Explore(limits);
        EXPECT_EQ(all.failure, "");
        std::cout << Describe(limits) << ": " << all.states << " states, " << all.steps << " steps\n";
    }
}

TEST(Model, NoticesEachOrderThatBreaksThePromise) {
    const std::pair<Fault, const char*> rows[] = {
        {Fault::recordDeletedBeforeZipIsNamed, "a complete record is lost"},
        {Fault::recordNumberNotStored, "two complete records have one number"},
        {Fault::zipNumberNotStored, "two zips have one number"},
        {Fault::zipDeletedWithoutAnswer, "a complete record is lost"},
        {Fault::unfinishedZipStays, "the queue is never empty again"},
        {Fault::unfinishedRecordStays, "half a record of an earlier run stays"},
        {Fault::planWrittenInPlace, "a plan is neither the old one nor the new one"},
        {Fault::newPlanIsBackup, "the backup is newer than the plan"},
        {Fault::newPlanNotLoaded, "the plan in use is not the one on disk"},
        {Fault::usedPlanStays, "a plan waits that is older than the one in use"},
    };
    for (const auto& [fault, promise] : rows) {
        const std::string failure = Explore({.plans = 1, .fault = fault}).failure;
        EXPECT_EQ(failure.substr(0, failure.find('\n')), promise);
    }
}

TEST_F(SteppedAgent, TakesEveryStepOfTheSmallModel) {
    std::vector<Limits> rows{{.records = 1, .zips = 1, .plans = 0, .crashes = 1},
                             {.records = 0, .zips = 0, .plans = 2, .crashes = 1}};
    if (GoesDeep())
        rows = {{.records = 2, .zips = 2, .plans = 0, .crashes = 1},
                {.records = 1, .zips = 2, .plans = 0, .crashes = 2},
                {.records = 1, .zips = 1, .plans = 1, .crashes = 1},
                {.records = 0, .zips = 0, .plans = 2, .crashes = 2}};
    for (const Limits& limits : rows) {
        const std::vector<Trace> traces = TracesOfEveryStep(limits);
        for (unsigned i = 0; i < traces.size(); ++i) ASSERT_EQ(Follow(traces[i], limits, i), "");
        std::cout << Describe(limits) << ": " << traces.size() << " traces through every step of "
                  << Explore(limits).states << " states\n";
    }
}

TEST_F(SteppedAgent, FollowsRandomTraces) {
    const Limits limits{.records = 4, .zips = 4, .plans = 5, .crashes = 6};
    const unsigned seed = NumberOf("KV_MODEL_SEED", 20), traces = GoesDeep() ? 400 : 5;
    std::size_t steps = 0;
    for (unsigned i = 0; i < traces; ++i) {
        std::mt19937 random(seed + i);
        State state;
        Trace trace;
        for (std::vector<Step> next; trace.size() < 120 && !(next = NextSteps(state, limits)).empty();) {
            Step step = next[random() % next.size()];
            if (step.actor == Actor::crash && random() % 4 != 0) step = next.front();
            state = After(state, step, limits);
            trace.push_back(step);
        }
        steps += trace.size();
        ASSERT_EQ(Follow(trace, limits, seed + i), "") << "KV_MODEL_SEED=" << seed + i;
    }
    std::cout << Describe(limits) << ", seed " << seed << ": " << traces << " traces of " << steps << " steps\n";
}

}  // namespace

}  // namespace kv::test
