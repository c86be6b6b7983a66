#include "tests/support/linux/child_program.h"

#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/isolation.h"
#include "tests/support/test_folder.h"

namespace kv::test {

namespace {

constexpr std::chrono::minutes patience{1};
constexpr std::chrono::milliseconds pause{10};

}  // namespace

ChildProgram::ChildProgram() : folder_(MakeTemporaryFolder()) {}

ChildProgram::~ChildProgram() {
    Stop(SIGKILL);
    RemoveFolder(folder_);
}

std::string ChildProgram::Output() const { return TestFolder::Read(folder_ / "output"); }

void ChildProgram::Start(const std::string& commandLine, const std::function<bool()>& isReady) {
    const std::string shellLine =
        fmt::format("cd '{}' && exec setpriv --pdeathsig KILL {} >>output 2>&1", folder_.string(), commandLine);
    const char* const arguments[]{"sh", "-c", shellLine.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments), environ) != 0)
        throw std::runtime_error("no shell for " + commandLine);
    const auto end = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < end && pid_ > 0) {
        if (isReady()) return;
        if (waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = 0;
        std::this_thread::sleep_for(pause);
    }
    throw std::runtime_error(commandLine + " does not answer. It has printed: " + Output());
}

void ChildProgram::Stop(int signal) {
    if (pid_ == 0) return;
    kill(pid_, signal);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
}

}  // namespace kv::test
