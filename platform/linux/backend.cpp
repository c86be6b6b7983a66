#include "platform/backend.h"

#include <csignal>

#include "platform/posix/posix.h"

namespace platform {

namespace {

/// A peer that hangs up and a file over its size limit become error numbers instead of ending the process; children are
/// waited for one by one, so they must stay waitable whatever this process inherited.
void SettleSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace

void InstallBackend() {
    SettleSignals();
    ReadStateDirectory();
    CurrentOperations<ClockOperations>() = PosixClock();
    CurrentOperations<CryptoOperations>() = PosixCrypto();
    CurrentOperations<FileOperations>() = PosixFiles();
    CurrentOperations<HttpOperations>() = PosixHttp();
    CurrentOperations<MessageOperations>() = PosixMessages();
    CurrentOperations<ProcessOperations>() = PosixProcesses();
    CurrentOperations<RegistryOperations>() = PosixRegistry();
    CurrentOperations<ServiceHostOperations>() = PosixServiceHost();
    CurrentOperations<ServiceManagerOperations>() = PosixServiceManager();
    CurrentOperations<SocketOperations>() = PosixSockets();
    CurrentOperations<SystemFactOperations>() = PosixSystemFacts();
    CurrentOperations<ThreadOperations>() = PosixThreads();
    CurrentOperations<WmiOperations>() = PosixWmi();
}

std::vector<std::string> CommandLineWords(int argc, char** argv) { return {argv, argv + argc}; }

}  // namespace platform
