// The timer in virtual time: which jobs run, when, and in which order.
#include "foundation/log.h"
#include "foundation/timer.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using Seconds = std::vector<std::int64_t>;

class Timer : public TestAgent {
  protected:
    Timer() {
        current = this;
        logState.gv_logLevel = 2;
        InitTimerManager();
    }
    ~Timer() override { InitTimerManager(); }

    /// Adds a job that notes the seconds at which it runs, counted from the start.
    std::uint32_t Add(std::int32_t job, TimerInterval interval, std::int64_t delay = 0) {
        static auto& keptReachable = *new std::vector<TimerSchedule*>;  // a deleted entry leaves its schedule
        auto* schedule = keptReachable.emplace_back(new TimerSchedule{.detail = interval});
        const auto fireTime = static_cast<std::uint32_t>(clock.nowSeconds() + delay);
        return AddTimerTask(std::nullopt, fireTime, Note, std::make_unique<std::int32_t>(job),
                            std::unique_ptr<TimerSchedule>(schedule), 0);
    }

    void RunFor(std::int64_t duration) {
        clock.endMilliseconds = clock.nowMilliseconds() + duration * 1000;
        EXPECT_THROW(TimerThread(nullptr), TimeIsUp);
    }

    VirtualClock clock;
    std::vector<std::int32_t> order;
    Seconds seconds;
    std::function<void()> whileRunning = [] {};

  private:
    static void Note(void* argument) {
        current->order.push_back(*static_cast<std::int32_t*>(argument));
        current->seconds.push_back(current->clock.nowSeconds() - VirtualClock::startMilliseconds / 1000);
        current->whileRunning();
    }
    static inline Timer* current = nullptr;
};

TEST_F(Timer, ArmsAJobAgainFromTheStartOfItsPass) {
    struct Row {
        const char* title;
        std::uint32_t period;
        TimerUnit unit;
        std::int32_t repeatCount;
        std::int64_t takesSeconds, runForSeconds;
        Seconds expected;
    };
    for (const Row& row : std::vector<Row>{
             {"minutes", 2, TimerUnit::minutes, -1, 0, 361, {0, 120, 240, 360}},
             {"hours", 1, TimerUnit::hours, -1, 0, 7300, {0, 3600, 7200}},
             {"three times", 10, TimerUnit::seconds, 3, 0, 100, {0, 10, 20}},
             {"a period of 0 does not block the pass", 0, TimerUnit::seconds, -1, 0, 3, {0, 1, 2}},
             {"a period beyond 32 bits is not a short one", UINT32_MAX, TimerUnit::hours, -1, 0, 100, {0}},
             {"a run that outlasts its period", 60, TimerUnit::seconds, -1, 90, 200, {0, 91, 182}},
             {"a run of 2 seconds does not shift the next", 60, TimerUnit::seconds, -1, 2, 121, {0, 60, 120}},
         }) {
        SCOPED_TRACE(row.title);
        DeleteTimerEntryByName(u"DEFAULT");
        clock.AdvanceMilliseconds(VirtualClock::startMilliseconds - clock.nowMilliseconds());
        seconds.clear();
        whileRunning = [&] { clock.AdvanceMilliseconds(row.takesSeconds * 1000); };
        Add(1, {.interval = row.period, .unit = row.unit, .repeatCount = row.repeatCount});
        RunFor(row.runForSeconds);
        EXPECT_EQ(seconds, row.expected);
    }
}

TEST_F(Timer, AClockThatIsSetBackLosesNoRun) {
    std::int64_t passed = 0;
    Seconds ran;
    whileRunning = [&] { ran.push_back(passed); };
    clock.onSleep = [&](std::uint32_t) {
        if (++passed == 30) clock.AdvanceMilliseconds(-86400 * 1000);
        if (passed > 130) throw TimeIsUp();
    };
    Add(1, {.interval = 60});
    EXPECT_THROW(TimerThread(nullptr), TimeIsUp);
    EXPECT_EQ(ran, (Seconds{0, 61, 121}));
    EXPECT_TRUE(Logged("the clock was set back by 86399 seconds"));
}

TEST_F(Timer, RunsDueJobsByTimeAndThenInTheirOrderOfAdding) {
    const TimerInterval minute{.interval = 60};
    const std::uint32_t first = Add(1, minute, 5);
    Add(2, minute);
    Add(3, minute, 3);
    EXPECT_EQ(Add(4, minute), first + 3);
    RunFor(62);
    EXPECT_EQ(order, (std::vector<std::int32_t>{2, 4, 3, 1, 2, 4}));
    EXPECT_EQ(DeleteTimerEntryByName(u"OTHER") + DeleteTimerEntryByName(std::nullopt), 0);
    RunFor(60);
    EXPECT_EQ(order.size(), 10u) << "the name of another timer deletes nothing";
    EXPECT_EQ(DeleteTimerEntryByName(u"DEFAULT"), 1);
    EXPECT_EQ(DeleteTimerEntryByName(u"DEFAULT"), 1) << "without entries";
    TimerEntry entry{};
    EXPECT_EQ(AddTimerTask(u"OTHER", 0, nullptr, nullptr, nullptr, 0) + AddTimerEntry(u"OTHER", &entry), 0U);
    EXPECT_EQ(AddTimerEntry(u"DEFAULT", &entry), first + 4);
    RemoveTimerEntry(u"DEFAULT", &entry);
    RunFor(100);
    EXPECT_EQ(order.size(), 10u);
}

}  // namespace
}  // namespace kv::test
