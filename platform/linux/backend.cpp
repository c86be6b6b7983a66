#include "platform/backend.h"

#include <csignal>

#include "platform/linux/linux.h"

namespace platform {

namespace {

/// A peer that hangs up and a file over its size limit become error numbers instead of ending the process. Children are
/// waited for one by one, so they must be waitable, whatever this process inherited.
void SettleSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace

void InstallBackend() {
    SettleSignals();
    ReadStateDirectory();
    BoundFreeMemory();
    CurrentOperations<ClockOperations>() = LinuxClock();
    CurrentOperations<CryptoOperations>() = LinuxCrypto();
    CurrentOperations<FileOperations>() = LinuxFiles();
    CurrentOperations<MessageOperations>() = LinuxMessages();
    CurrentOperations<ProcessOperations>() = LinuxProcesses();
    CurrentOperations<SocketOperations>() = LinuxSockets();
    CurrentOperations<SystemFactOperations>() = LinuxSystemFacts();
    CurrentOperations<ThreadOperations>() = LinuxThreads();
}

std::vector<std::string> CommandLineWords(int argc, char** argv) { return {argv, argv + argc}; }

}  // namespace platform
