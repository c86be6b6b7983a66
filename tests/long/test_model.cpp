// The model explored. KV_MODEL_DEPTH=2 does so to a depth that takes minutes.
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>

#include "tests/long/model.h"

namespace kv::model {

namespace {

bool GoesDeep() {
    const char* depth = std::getenv("KV_MODEL_DEPTH");
    return depth && std::atoi(depth) > 1;
}

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
        {Fault::recordsDeletedBeforeZipIsNamed, "a complete record is lost"},
        {Fault::recordNumberNotStored, "two complete records have one number"},
        {Fault::zipNumberNotStored, "two zips have one number"},
        {Fault::zipDeletedWithoutAnswer, "the queue is never empty again"},
        {Fault::unfinishedZipStays, "the queue is never empty again"},
        {Fault::planWrittenInPlace, "a plan is neither the old one nor the new one"},
    };
    for (const auto& [fault, promise] : rows) {
        const std::string failure = Explore({.plans = 1, .fault = fault}).failure;
        EXPECT_EQ(failure.substr(0, failure.find('\n')), promise);
    }
}

}  // namespace

}  // namespace kv::model
