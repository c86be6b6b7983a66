// The model explored, and the agent's own routines run along its traces. KV_MODEL_DEPTH=2 does both to a depth that
// takes minutes; KV_MODEL_SEED chooses other random traces.
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "tests/long/stepped_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;
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
        {Fault::recordsDeletedBeforeZipIsNamed, "a complete record is lost"},
        {Fault::recordNumberNotStored, "two complete records have one number"},
        {Fault::zipNumberNotStored, "two zips have one number"},
        {Fault::zipDeletedWithoutAnswer, "a complete record is lost"},
        {Fault::unfinishedZipStays, "the queue is never empty again"},
        {Fault::planWrittenInPlace, "a plan is neither the old one nor the new one"},
    };
    for (const auto& [fault, promise] : rows) {
        const std::string failure = Explore({.plans = 1, .fault = fault}).failure;
        EXPECT_EQ(failure.substr(0, failure.find('\n')), promise);
    }
}

/// Each life of the agent is a child process, and so is the server. This process starts no thread.
class RealAgent : public TestAgent {
  protected:
    RealAgent() {
        agentState.gv_agentKey.Publish(u"K7");
        agentState.gv_LastAccessName.Publish(u"127.0.0.1");
        agentState.gv_httpsEnabled = 0;
        logState.gv_logLevel = 0;
        int port = 0;
        const Socket listener = ListenOnLoopback(port);
        agentState.gv_ServerPort = port;
        server_ = fork();
        if (server_ == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0) ServeForever(listener, shared_, folders_.taken);
        CloseSocket(listener);
    }
    ~RealAgent() override {
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
        munmap(&shared_, sizeof shared_);
    }

    /// Runs a whole trace, each of its lives in a process of its own; false with a failure when the agent differs.
    bool Follows(const Trace& trace, const Limits& limits, unsigned seed) {
        for (const fs::path& part : {folders_.data, folders_.zipdata, folders_.taken, conf, folder / "state"}) {
            fs::remove_all(part);
            fs::create_directories(part);
        }
        Write(conf / "queryconf.txt", PlanBytes(0));
        State state;
        for (auto begin = trace.begin(); begin != trace.end();) {
            auto end = std::find_if(begin, trace.end(), [](Step step) { return step.actor == Actor::crash; });
            if (!LivesAsModelled({begin, end}, state, limits, seed)) {
                ADD_FAILURE() << Describe(trace) << '\n' << shared_.difference;
                return false;
            }
            for (; begin != end; ++begin) state = After(state, *begin, limits);
            if (end != trace.end()) state = After(state, *begin++, limits);
        }
        return true;
    }

  private:
    bool LivesAsModelled(const Trace& steps, State state, const Limits& limits, unsigned seed) {
        const pid_t child = fork();
        if (child == 0) {
            SteppedAgent agent(folders_, shared_);
            for (std::size_t i = 0; i < steps.size(); ++i) {
                state = After(state, steps[i], limits);
                const std::string difference = agent.Take(steps[i], state);
                if (difference.empty()) continue;
                std::snprintf(shared_.difference, sizeof shared_.difference, "after %s\n%s",
                              Describe(Trace(steps.begin(), steps.begin() + static_cast<int>(i) + 1)).c_str(),
                              difference.c_str());
                _exit(1);
            }
            std::mt19937 random(seed);
            agent.GoOnALittle(random);
            _exit(0);
        }
        int status = 0;
        std::snprintf(shared_.difference, sizeof shared_.difference, "the child process ends by itself");
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    static SharedMemory& MapSharedMemory() {
        void* memory = mmap(nullptr, sizeof(SharedMemory), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        return *static_cast<SharedMemory*>(memory);
    }

    AgentFolders folders_{conf, data, zipdata, folder / "taken"};
    SharedMemory& shared_ = MapSharedMemory();
    pid_t server_ = 0;
};

TEST_F(RealAgent, TakesEveryStepOfTheSmallModel) {
    std::vector<Limits> rows{{.records = 1, .zips = 1, .plans = 0, .crashes = 1},
                             {.records = 0, .zips = 0, .plans = 2, .crashes = 1}};
    if (GoesDeep())
        rows = {{.records = 2, .zips = 2, .plans = 0, .crashes = 1},
                {.records = 1, .zips = 2, .plans = 0, .crashes = 2},
                {.records = 1, .zips = 1, .plans = 1, .crashes = 1},
                {.records = 0, .zips = 0, .plans = 2, .crashes = 2}};
    for (const Limits& limits : rows) {
        const std::vector<Trace> runs = RunsThroughAll(limits);
        for (unsigned i = 0; i < runs.size(); ++i) ASSERT_TRUE(Follows(runs[i], limits, i));
        std::cout << Describe(limits) << ": " << runs.size() << " traces through every step of "
                  << Explore(limits).states << " states\n";
    }
}

TEST_F(RealAgent, FollowsRandomTraces) {
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
        ASSERT_TRUE(Follows(trace, limits, seed + i)) << "KV_MODEL_SEED=" << seed + i;
    }
    std::cout << Describe(limits) << ", seed " << seed << ": " << traces << " traces of " << steps << " steps\n";
}

}  // namespace

}  // namespace kv::test
