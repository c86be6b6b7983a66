// The schedule of a plan, in virtual time, and reloads while workflows run.
#include <atomic>
#include <chrono>
#include <new>
#include <thread>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/timer.h"
#include "jsontext/hash_json.h"
#include "platform/process.h"
#include "platform/threads.h"
#include "queryconf/config_reload.h"
#include "queryconf/schedule.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

class Scheduler : public TestAgent {
  protected:
    Scheduler() {
        logState.gv_logLevel = 2;
        InitTimerManager();
    }
    ~Scheduler() override {
        InitTimerManager();
        FreeAllVector(agentState.gv_sortVec);
        FreeAllHashTable(agentState.gv_queryConfHash);
    }

    void RunFor(std::int64_t duration) {
        clock.endMilliseconds = clock.nowMilliseconds() + duration * 1000;
        EXPECT_THROW(TimerThread(nullptr), TimeIsUp);
    }

    VirtualClock clock;
};

TEST_F(Scheduler, SchedulesEveryWorkflowThatCanRun) {
    constexpr std::u16string_view plan =
        uR"({"WorkFlows":[{"interval":7}, {"interval":5,"recordSetName":[]}, {"interval":1,"recordSetName":[]}],
             "WorkFlows_S":[{"interval":0,"recordSetName":[]}, {"interval":2147483647,"recordSetName":[]}]})";
    agentState.gv_queryConfHash = MakeHashTable().release();
    ASSERT_TRUE(JSONTextToHash(agentState.gv_queryConfHash, plan).ok);
    {
        int taken = 0;
        const Replaced waits(&platform::ThreadOperations::WaitForMutex,
                             [&, next = platform::Threads().WaitForMutex](auto mutex) {
                                 if (mutex == timerManager.gv_timerMutex && ++taken == 2)
                                     throw std::bad_alloc();  // at the first entry
                                 next(mutex);
                             });
        scheduleQueryHashData();
    }
    EXPECT_EQ(TimesLogged("scheduleQueryHashData :: ended early"), 1);
    RunFor(301);
    const std::string run = "CollectAndSaveData :: queryInfo: { \"recordSetName\": [ ], \"interval\": ";
    EXPECT_EQ(TimesLogged(run + "5 "), 2);
    EXPECT_EQ(TimesLogged(run + "1 "), 6);
    EXPECT_EQ(TimesLogged(run), 9);
    EXPECT_EQ(TimesLogged("below 1: it is not scheduled"), 1);
    FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, MakeHashTable().release()));
    ASSERT_TRUE(JSONTextToHash(agentState.gv_queryConfHash, u"{\"WorkFlows\":[]}").ok);
    ReloadAndScheduleQueryData();
    EXPECT_EQ(agentState.gv_sortVec->count, 0);
    RunFor(301);
    EXPECT_EQ(TimesLogged(run), 9);
}

TEST_F(Scheduler, SurvivesHundredsOfReloadsWhileCollecting) {
    std::atomic<int> ran = 0;
    std::atomic<bool> stop = false;
    std::atomic<bool> reloading = false;
    const auto rest = [] { std::this_thread::sleep_for(std::chrono::microseconds(20)); };
    platform::ProcessOperations processes = platform::Processes();
    processes.CreateProcessW = [&](std::u16string_view, std::u16string_view, platform::ProcessHandle& process) {
        ++ran;
        process = 1;
        return platform::error::success;
    };
    processes.WaitForSingleObject = [&](auto...) {  // a script lasts until a reload waits for it
        while (!reloading && !stop) rest();
        return platform::error::success;
    };
    processes.GetExitCodeProcess = [](auto&&...) { return platform::error::success; };
    processes.CloseProcess = [](auto) {};
    const platform::ScopedOperations scopedProcesses(processes);
    clock.onSleep = [&](std::uint32_t) {
        if (stop) throw TimeIsUp();
        rest();  // otherwise the timer's mutex is hardly ever free
    };
    logState.gv_logLevel = 1;
    agentState.gv_agentKey.Publish(u"Own");
    std::thread timer([] { EXPECT_THROW(TimerThread(nullptr), TimeIsUp); });
    std::int32_t workflows = 0;
    for (int reload = 0; reload < 300; ++reload) {
        workflows = 1 + reload % 3;
        std::string plan = "{\"WorkFlows\":[";
        for (int i = 0; i < workflows; ++i)
            plan += "{\"interval\":" + std::to_string(1000 + i) + ",\"recordSetName\":[{\"script\":\"s.sh\"}]},";
        Write(conf / "download" / "queryconf.txt", plan + "]}");
        ReloadQueryConfDetails(u"own");
        reloading = true;
        const int before = ran;
        ReloadAndScheduleQueryData();
        reloading = false;
        while (reload % 2 == 0 && ran == before) rest();
    }
    stop = true;
    timer.join();
    EXPECT_GE(ran, 150);
    EXPECT_EQ(agentState.gv_sortVec->count, workflows);
    EXPECT_EQ(TimesLogged("there is no workflow at index"), 0);
    EXPECT_EQ(TimesLogged("scheduled successfully..."), 300);
}

}  // namespace
}  // namespace kv::test
