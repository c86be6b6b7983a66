// Programs that are run for what they print.
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "facts/command_output.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::chrono_literals;

TEST(CommandOutput, IsBoundedInTimeAndSize) {
    constexpr std::chrono::milliseconds ample = 60s;
    constexpr std::size_t limit = 8;
    const struct {
        const char* title;
        std::vector<std::string> words;
        std::chrono::milliseconds time;
        int failure, exitCode;
        std::string output, complaint;
    } rows[] = {
        {"prints and fails", {"/bin/sh", "-c", "echo a $LC_ALL; echo b >&2; exit 3"}, ample, 0, 3, "a C\n", "b\n"},
        {"reads", {"/bin/cat"}, ample, 0, 0, "", ""},
        {"gets each word as it is", {"/usr/bin/printf", "%s.", "a b", "$x", ""}, ample, 0, 0, "a b.$x..", ""},
        {"not there", {"/nonexistent"}, ample, ENOENT, -1, "", ""},
        {"killed", {"/bin/sh", "-c", "kill -9 $$"}, ample, 0, 137, "", ""},
        {"does not end", {"/bin/sh", "-c", "echo a; sleep 60 & sleep 60"}, 300ms, ETIMEDOUT, 137, "a\n", ""},
        {"closes its output and does not end", {"/bin/sh", "-c", "exec >&- 2>&-; sleep 60"}, 300ms, 0, 137, "", ""},
        {"prints forever", {"/usr/bin/yes"}, ample, EFBIG, 137, "y\ny\ny\ny\n", ""},
    };
    std::signal(SIGCHLD, SIG_DFL);
    for (const auto& row : rows) {
        const CommandOutput outcome = RunCommand(row.words, {row.time, limit});
        EXPECT_EQ(std::tuple(outcome.failure, outcome.exitCode, outcome.output, outcome.complaint),
                  std::tuple(row.failure, row.exitCode, row.output, row.complaint))
            << row.title;
    }
}

TEST(CommandOutput, EndsWithTheProcessThatWantedIt) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);  // the program inherits it
    const pid_t asking = fork();
    if (asking == 0) {
        RunCommand({"/bin/sh", "-c", "echo >&" + std::to_string(ends[1]) + "; exec sleep 60"}, {60s, 1});
        _exit(0);
    }
    close(ends[1]);
    char sign = 0;
    EXPECT_EQ(read(ends[0], &sign, 1), 1) << "it runs";
    kill(asking, SIGKILL);
    waitpid(asking, nullptr, 0);
    pollfd closed{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&closed, 1, 30'000), 1) << "it still runs";
    close(ends[0]);
}

}  // namespace
}  // namespace kv::test
