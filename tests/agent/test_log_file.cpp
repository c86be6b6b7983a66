// The log on real files: levels, rotation, faults, and threads that log while others rotate.
#include <algorithm>
#include <atomic>
#include <fmt/ranges.h>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "agent/log_file.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

class LogFile : public test::TestAgent {
  protected:
    LogFile() : logs(folder / "monitoring" / "logs") {}

    /// Opens the log over files that are described in the form of Files().
    void Start(const std::string& files) {
        StopLogging();
        for (const auto& entry : fs::directory_iterator(logs)) fs::remove(entry);
        std::istringstream words(files);
        for (std::string name, content; std::getline(words, name, '=') && words >> content; words >> std::ws)
            Write(logs / name, content);
        RotateLogger(std::nullopt);
    }

    static void SetNumber(std::u16string_view name, std::u16string_view number) {
        SetSetting(agentKeyPath, name, number, platform::RegistryType::dword);
    }

    /// The files by name, each as "name=x" with the first character of its content.
    std::string Files() const {
        std::set<std::string> files;
        for (const auto& entry : fs::directory_iterator(logs))
            files.insert(entry.path().filename().string() + "=" + ReadText(entry.path()).substr(0, 1));
        return fmt::format("{}", fmt::join(files, " "));
    }

    fs::path logs;
};

TEST_F(LogFile, RotatesAtTheDefaultAndAtTheConfiguredSize) {
    for (const auto& [size, isBeforeTheFirstLine] : {std::pair{1000000U, false}, {1000001U, true}}) {
        Start("agent.log=" + std::string(size, 'x'));
        EXPECT_EQ(Files(), "agent.log=\n agent1.log=x");
        EXPECT_EQ(fs::file_size(logs / "agent1.log") == size, isBeforeTheFirstLine) << size;
        EXPECT_TRUE(Logged("STARTING MONITORING AGENT"));
    }
    SetNumber(u"LoggerMaxSize", u"500");
    SetNumber(u"LoggerMaxFiles", u"7");
    Start("agent.log=" + std::string(900000, 'x'));
    EXPECT_NE(Read(logs / "agent1.log").find("STARTING MONITORING AGENT"), std::string::npos);
    EXPECT_EQ(logState.gv_logMaxFiles, 7U);
}

TEST_F(LogFile, ShiftsNumberedFiles) {
    const std::tuple<const char*, std::uint32_t, const char*, const char*> rows[] = {
        {"first rotation", 10, "agent.log=0", "agent.log=\n agent1.log=0"},
        {"the oldest goes", 2, "agent.log=0 agent1.log=1 agent2.log=2", "agent.log=\n agent1.log=0 agent2.log=1"},
        {"an unrelated file counts as one", 2, "agent.log=0 agent1.log=1 agentnotes.txt=n",
         "agent.log=\n agent1.log=0 agent2.log=1 agentnotes.txt=n"},
        {"more files than the limit", 1, "agent.log=0 agent1.log=1 agent2.log=2", "agent.log=\n agent1.log=0"},
        {"none to keep", 0, "agent.log=0 agent1.log=1", "agent.log=0"},
    };
    for (const auto& [title, maxFiles, before, after] : rows) {
        SCOPED_TRACE(title);
        Start(before);
        logState.gv_logMaxFiles = maxFiles;
        logState.gv_logMaxSize = logState.gv_logBytes + 1;
        Log1("rotates after it is written\n");
        EXPECT_EQ(logState.gv_logBytes, 0U);
        Log1("first line of the new file\n");
        EXPECT_EQ(Files(), after);
    }
}

TEST_F(LogFile, BeginsAgainWhenItsFileIsGone) {
    Start("");
    std::error_code inUse;  // where an open file cannot be deleted
    fs::remove_all(logs, inUse);
    {
        const test::Replaced full(&platform::FileOperations::CreateFileW,
                                  [](auto&&...) { return platform::error::diskFull; });
        testing::internal::CaptureStderr();
        for (int minute = 0; minute < 2; ++minute) ReopenDeletedLog();
        const std::string told = testing::internal::GetCapturedStderr();
        const std::size_t place = told.find("agent.log cannot be opened: ");
        EXPECT_TRUE(inUse || (place != std::string::npos && place == told.rfind("agent.log"))) << told;
        EXPECT_TRUE(inUse || logState.gv_logFile == 0);
    }
    if (!inUse) Write(logs / "agent.log", std::string(5000, 'x'));
    ReopenDeletedLog();
    EXPECT_TRUE(inUse || logState.gv_logBytes > 5000U) << "what is in it counts";
    Log1("after that\n");
    EXPECT_TRUE(Logged("after that"));
    EXPECT_TRUE(inUse || Logged("The log could not be opened before"));
}

TEST_F(LogFile, PrintsItsArgumentsAndCountsItsFormats) {
    test::VirtualClock clock;
    Start("");
    const std::optional<std::u16string> absent;
    const char16_t* null = nullptr;
    const std::uint32_t before = logState.gv_logBytes;
    Log1("%s|%s|%s|%04d|%ld|%s\n", u"w\u00e4\U0001F600", absent, null, -7, std::int64_t{1} << 40,
         std::u16string(10000, u'x'));
    const std::string prefix = "\n2026/03/05  09:05:07:000 ";
    EXPECT_EQ(logState.gv_logBytes - before, (prefix + "%s|%s|%s|%04d|%ld|%s\n").size());
    EXPECT_TRUE(Logged(prefix + "w\xC3\xA4\xF0\x9F\x98\x80|(null)|(null)|-007|1099511627776|" +
                       std::string(10000, 'x') + "\n"));
    const std::pair<std::string, std::string> rows[] = {
        {kv::LogText("%d %04x %ld", 4294967295U, -1, 4294967295U), "-1 ffffffff 4294967295"},
        {kv::LogText("%u %d %x %3u|", -1, ~std::uint64_t{0}, std::uint64_t{1} << 36, 7U),
         "4294967295 18446744073709551615 1000000000   7|"},
        {kv::LogText("%ld %s 100%%", std::numeric_limits<std::int64_t>::min(), -1), "-9223372036854775808 -1 100%"},
        {kv::LogText("%d is not a number, %s\n", u"text", u"and the format stays"), "%d is not a number, %s\n"},
        {kv::LogText("%d of %d, 5%", 1), "%d of %d, 5%"},
        {kv::LogText("[%s]", u"a\r\n2026/03/05  forged\x1b[2J\t\u0085\u2028\u2029\u202E\xD800\r\n"),
         "[a\\r\\n2026/03/05  forged\\x1B[2J\\t\\x85\\u2028\\u2029\\u202E\xEF\xBF\xBD]"},
        {kv::LogText("[%s]", "w\xC3\xA4\n\xC2\x9B\x7F\xE2\x80\xA8\xC0\x80\n"),
         "[w\xC3\xA4\\n\\x9B\\x7F\\u2028\xEF\xBF\xBD\xEF\xBF\xBD]"},
    };
    for (const auto& [printed, expected] : rows) EXPECT_EQ(printed, expected);
}

TEST_F(LogFile, LevelsAreThresholdsButTraceIsExact) {
    const std::map<std::u16string_view, std::string> rows = {{u"0", ""},    {u"1", "1"},    {u"2", "12"},
                                                             {u"3", "123"}, {u"4", "1234"}, {u"9", "123"}};
    for (const auto& [level, lines] : rows) {
        SetNumber(u"AgentLogLevel", level);
        Start("");
        Log1("line-1 ");
        Log2("line-2 ");
        Log3("line-3 ");
        Log4("line-4 ");
        std::string seen;
        for (const std::string digit : {"1", "2", "3", "4"}) seen += Logged("line-" + digit) ? digit : "";
        EXPECT_EQ(seen, lines);
    }
}

TEST_F(LogFile, LosesOnlyLinesToAFullDisk) {
    Start("agent.log=0");
    {
        const platform::ScopedOperations full(Failing(&platform::FileOperations::WriteText, platform::error::diskFull));
        logState.gv_logMaxSize = logState.gv_logBytes + 1;
        Log1("dropped, counted, rotates\n");
        EXPECT_EQ(logState.gv_logBytes, 0U);
    }
    Log1("room again\n");
    EXPECT_EQ(Read(logs / "agent1.log").find("dropped"), std::string::npos);
    EXPECT_TRUE(Logged("room again\n"));
    EXPECT_EQ(Files(), "agent.log=\n agent1.log=0");
}

TEST_F(LogFile, LosesNoLineWhileThreadsRotateAtFullSpeed) {
    constexpr int threadCount = 3;
    constexpr int rotations = 500;
    Start("");
    std::string kept;  // parsed at the end only, because a log grows while it is rotated
    std::atomic<int> moved{0};
    platform::FileOperations files = platform::Files();
    files.MoveFileExW = [&, real = files.MoveFileExW](auto from, auto to, platform::MoveTarget replace) {
        ++moved;
        return real(from, to, replace);
    };
    files.DeleteFileW = [&, real = files.DeleteFileW](auto path) {
        if (const fs::path old(platform::Files().NativePath(path)); fs::exists(old)) kept += Read(old);
        return real(path);
    };
    int written[threadCount] = {};
    {
        const platform::ScopedOperations scoped(files);
        logState.gv_logMaxFiles = 1;
        logState.gv_logMaxSize = 100;  // every second line rotates
        std::vector<std::thread> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back([&, t] {
                while (moved < rotations) Log1("thread %d line %d|%s|end\n", t, written[t]++, u"x");
            });
        }
        for (std::thread& thread : threads) thread.join();
        logState.gv_logMaxSize = 1000000;
    }
    for (const auto& entry : fs::directory_iterator(logs)) kept += Read(entry.path());
    std::map<std::string, int> lines;
    std::istringstream content(std::move(kept));
    for (std::string line; std::getline(content, line);) {
        if (line.ends_with('\r')) line.pop_back();
        const std::size_t at = std::min(line.find("thread "), line.find("The log goes on without"));
        if (at != line.npos) ++lines[line.substr(at)];
    }
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(written[0] + written[1] + written[2]));
    for (int t = 0; t < threadCount; ++t)
        for (int i = 0; i < written[t]; ++i) ASSERT_EQ(lines[fmt::format("thread {} line {}|x|end", t, i)], 1);
}

TEST_F(LogFile, KeepsTheLockOnEarlyReturnsWithoutBlockingLines) {
    const auto isHeld = [] { return IsResourceLocked_MSP(&logState.gv_logFile) == 1; };
    Start("");
    logState.gv_logMaxSize = 500;
    logState.gv_logBytes = 600;
    SynchronizeResource_MSP(&logState.gv_logFile);
    std::thread waiting([] { RotateLogFile(600); });
    logState.gv_logBytes = 1;  // as if it were rotated meanwhile
    UnsynchronizeResource_MSP(&logState.gv_logFile);
    waiting.join();
    EXPECT_TRUE(isHeld());
    for (int i = 0; i < 100; ++i) Log1("passes the limit and goes on, line %d|\n", i);
    EXPECT_EQ(Files(), "agent.log=\n");
    EXPECT_TRUE(Logged("line 99|"));
    const std::string reason = "goes on without rotation, because the lock of an earlier rotation was not released\n";
    EXPECT_EQ(TimesLogged(reason), 1);
    UnsynchronizeResource_MSP(&logState.gv_logFile);

    const platform::ScopedOperations denied(
        Failing(&platform::FileOperations::CreateFileW, platform::error::accessDenied));
    logState.gv_logBytes = 0;
    RotateLogFile(0);
    EXPECT_TRUE(isHeld());
    UnsynchronizeResource_MSP(&logState.gv_logFile);
    Start("");
    EXPECT_EQ(logState.gv_logOpenFailed, 1);
    EXPECT_FALSE(isHeld());
}

TEST_F(LogFile, DoesNotRotateWhileAnotherProcessWritesToTheLog) {
    StopLogging();
    Write(logs / "agent.log", std::string(1000001, 'x'));
    platform::FileHandle another = 0;
    ASSERT_EQ(
        platform::Files().CreateFileW(logState.gv_logPath, platform::FileAccess::append, platform::FileShare::readWrite,
                                      platform::FileDisposition::openAlways, another),
        platform::error::success);
    RotateLogger(std::nullopt);
    EXPECT_TRUE(Logged("Another process writes to the log"));
    logState.gv_logMaxSize = 100;
    for (int i = 0; i < 10; ++i) Log1("a line beside another writer\n");
    EXPECT_EQ(Files(), "agent.log=x");
    platform::Files().CloseHandle(another);
    int lines = 0;
    do Log1("the other writer has ended\n");
    while (logState.gv_logBytes != 0 && ++lines < 10);
    Log1("first line of the new file\n");
    EXPECT_EQ(Files(), "agent.log=\n agent1.log=x");
}

TEST_F(LogFile, LogsTenLinesOfARefusalAndThenTheirCount) {
    Start("");
    {
        const LineBound bound(30);
        for (int i = 0; i < 1000; ++i) {
            Log1("\tserved %05d at 50%%\n", i);
            const LineBound::OfRefusal refusal;
            Log1("element %d is skipped\n", i);
            if (i % 100 != 0) continue;
            const LineBound inner;
            for (int j = 0; j < 12; ++j) Log1("item %d of an archive\n", j);
        }
    }
    Log1("element %d is skipped\n", 1000);
    EXPECT_EQ(TimesLogged("is skipped\n"), 11);
    EXPECT_EQ(TimesLogged("served "), 31);
    EXPECT_EQ(TimesLogged("of an archive\n"), 10);
    for (const char* line : {"990 more lines like \"element ... is skipped\" are left out\n",
                             "970 more lines like \"served ... at 50%\" are left out\n",
                             "2 more lines like \"item ... of an archive\" are left out\n"})
        EXPECT_TRUE(Logged(line)) << line;
}

}  // namespace
}  // namespace kv
