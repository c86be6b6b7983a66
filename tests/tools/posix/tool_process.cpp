#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "tests/support/isolation.h"

namespace kv::test {

namespace {

/// The end to write to of a pipe whose other end is closed.
int DeadPipe() {
    int ends[2] = {-1, -1};
    if (pipe(ends) == 0) close(ends[0]);
    return ends[1];
}

int NewFile(const std::filesystem::path& path) { return creat(path.c_str(), 0600); }

}  // namespace

ToolProcess::ToolProcess(std::vector<std::string> words, const std::filesystem::path& output,
                         const std::filesystem::path& errors) {
    words.insert(words.begin(), std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kvreg");
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    process_ = fork();
    if (process_ != 0) return;
    alarm(60);
    if (dup2(output.empty() ? DeadPipe() : NewFile(output), STDOUT_FILENO) >= 0 &&
        dup2(NewFile(errors), STDERR_FILENO) >= 0)
        execv(arguments[0], arguments.data());
    _exit(127);
}

ToolProcess::~ToolProcess() {
    if (process_ <= 0) return;
    kill(static_cast<pid_t>(process_), SIGKILL);
    ExitCode();
}

int ToolProcess::ExitCode() {
    int status = 0;
    const pid_t ended = waitpid(static_cast<pid_t>(std::exchange(process_, 0)), &status, 0);
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ShareRegistry(const std::filesystem::path& folder) { IsolateRegistry(folder); }

}  // namespace kv::test
