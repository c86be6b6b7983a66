// Scripts and their processes on Linux.
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include "platform/clock.h"
#include "tests/platform/process_test.h"

namespace platform::test {

namespace {

namespace fs = std::filesystem;

class ProcessTest : public ProcessTestBase {
  protected:
    ProcessTest() { mkfifo("id", 0600); }
    ~ProcessTest() override { EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped"; }

    void Script(const std::string& name, std::string_view text, bool executable = true) {
        const fs::path path = work / "conf dir/it's" / name;
        Write(path, text);
        if (executable) fs::permissions(path, fs::perms::owner_all);
    }

    static std::uint32_t RunScript(std::u16string_view name, std::u16string_view arguments) {
        return Run(Processes().ComposeScriptLine(
            {u"", u"conf dir\\it's\\" + std::u16string(name), std::u16string(arguments), u"out $dir\\o'ut"}));
    }

    /// The process id that a child writes into the pipe "id".
    static pid_t AwaitId() { return std::stoi(Read("id")); }

    /// Whether a process ends within a second. A zombie has ended.
    static bool EndsSoon(pid_t id) {
        for (int look = 0; look < 100; ++look, Clock().Sleep(10)) {
            const std::string status = Read("/proc/" + std::to_string(id) + "/status");
            if (status.empty() || status.find("State:\tZ") != std::string::npos) return true;
        }
        return false;
    }
};

TEST_F(ProcessTest, ArgumentsReachTheScriptUnchanged) {
    Script("show.sh", "#!/bin/sh\nfor argument; do printf '[%s]\\n' \"$argument\"; done\n");
    fs::create_directory("out $dir");
    const std::tuple<const char*, std::u16string_view, std::string> rows[] = {
        {"blanks and tabs separate", u"  a  b\tc ", "[a]\n[b]\n[c]\n"},
        {"double quotes keep together", u"c\"d e\"f \"\" a \"b c", "[cd ef]\n[]\n[a]\n[b c]\n"},
        {"backslashes escape quotes only", u"\\\"hi\\\" c:\\x\\\\y \\", "[\"hi\"]\n[c:\\x\\\\y]\n[\\]\n"},
        {"the shell interprets nothing", u"$(touch bad) `x` ;rm * >y | & $HOME it's 'a\nb'",
         "[$(touch]\n[bad)]\n[`x`]\n[;rm]\n[*]\n[>y]\n[|]\n[&]\n[$HOME]\n[it's]\n['a\nb']\n"},
        {"a number before the redirection", u"2", "[2]\n"},
        {"no arguments", u"", ""},
        {"beyond ASCII, and a zero", std::u16string_view(u"\u00E4\U0001F600 x\0y", 7),
         "[\xC3\xA4\xF0\x9F\x98\x80]\n[x\xEF\xBF\xBDy]\n"},
    };
    for (const auto& [title, arguments, expected] : rows) {
        fs::remove("out $dir/o'ut");
        EXPECT_EQ(RunScript(u"show.sh", arguments), 0U) << title;
        EXPECT_EQ(Read("out $dir/o'ut"), expected) << title;
    }
    EXPECT_FALSE(fs::exists("bad"));
    RunScript(u"show.sh", u"more");
    EXPECT_TRUE(Read("out $dir/o'ut").ends_with("[more]\n")) << "appended";
    Script("plain.sh", "exit 5\n", false);
    EXPECT_EQ(RunScript(u"plain.sh", u""), 5U) << "neither executable nor with an interpreter";
    EXPECT_EQ(Run(Processes().ComposeScriptLine({u"cscript.exe //U", u"x.vbs", u"a", {}})), 127U)
        << "the host is missing";
}

TEST_F(ProcessTest, AChildInheritsNothing) {
    const int open = ::open("/dev/null", O_RDONLY);  // deliberately stays open at exec
    std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(Run(u"exec >state; ls /proc/self/fd; grep -E 'Sig(Blk|Ign)' /proc/self/status; cat; pwd; ls -l nofile"),
              2U);
    close(open);
    EXPECT_EQ(Read("state"),
              "0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" + work.string() + "\n");

    ProcessHandle process = 0;
    EXPECT_EQ(Processes().CreateProcessW(u"true", u"missing", process), error::directoryName);
    EXPECT_EQ(Processes().CreateProcessW(std::u16string(200'000, u'x'), u"", process), error::fileNameTooLong);
    EXPECT_EQ(process, 0U);
}

TEST_F(ProcessTest, TerminationEndsTheWholeTree) {
    const std::tuple<const char*, std::u16string> rows[] = {
        {"a process that ignores the polite signals", u"trap '' TERM HUP INT; echo $$ >id; while :; do sleep 1; done"},
        {"an orphan in a new session with an empty environment",
         u"(env -i setsid sh -c 'trap \"\" TERM; echo $$ >id; sleep 100' &) ; sleep 100"},
        {"an orphan's orphan", u"(setsid sh -c '(setsid sh -c \"echo \\$\\$ >id; sleep 100\" &)' &) ; sleep 100"},
        {"a process that stopped itself", u"sh -c 'echo $$ >id; kill -STOP $$' & sleep 100"},
        {"a process that forks all the time",
         u"setsid sh -c 'echo $$ >id; while :; do (setsid sleep 100 &); done' & sleep 100"},
    };
    for (const auto& [title, line] : rows) {
        const pid_t starter = fork();
        if (starter == 0) {
            for (Start(line);;) pause();
        }
        const pid_t orphan = AwaitId();
        kill(starter, SIGKILL);
        waitpid(starter, nullptr, 0);
        EXPECT_TRUE(EndsSoon(orphan)) << title << ": its starter was killed";

        const ProcessHandle process = Start(line);
        const pid_t survivor = AwaitId();
        std::uint32_t code = 0;
        EXPECT_EQ(Processes().WaitForSingleObject(process, 20), error::waitTimeout) << title;
        EXPECT_EQ(Processes().GetExitCodeProcess(process, code), error::busy) << title;
        EXPECT_EQ(Processes().TerminateProcess(process), error::success) << title;
        EXPECT_TRUE(EndsSoon(survivor)) << title;
        EXPECT_EQ(Processes().GetExitCodeProcess(process, code), error::success) << title;
        EXPECT_EQ(code, 137U) << title;
        Processes().CloseProcess(process);
    }
    EXPECT_EQ(Run(u"for at in /proc/[0-9]*; do case ${at#/proc/} in $$|" + WideFromUtf8(std::to_string(getpid())) +
                  u") continue; esac; [ \"$(readlink $at/cwd)\" = \"$PWD\" ] && exit 1; done; exit 0"),
              0U)
        << "a process is left in the test's folder";
}

TEST_F(ProcessTest, AScriptThatLeavesAChildBehindHasEnded) {
    ProcessHandle process = Start(u"sleep 100 & echo $! >id");
    const pid_t child = AwaitId();
    EXPECT_EQ(Processes().WaitForSingleObject(process, 20'000), error::success);
    Processes().CloseProcess(process);
    EXPECT_EQ(kill(child, SIGKILL), 0);
    EXPECT_TRUE(EndsSoon(child));

    // Without a wait, it goes on and is reaped when another starts or ends.
    process = Start(u"echo $PPID >id; read line <id");
    Processes().CloseProcess(process);
    const pid_t guardian = AwaitId();
    EXPECT_EQ(kill(guardian, 0), 0);
    std::ofstream("id") << "on\n";
    EXPECT_TRUE(EndsSoon(guardian));
    EXPECT_EQ(Run(u"true"), 0U);
}

}  // namespace

}  // namespace platform::test
