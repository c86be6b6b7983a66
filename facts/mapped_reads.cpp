#include "facts/mapped_reads.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kv::facts {

namespace {

// The handler reads these: in static thread storage, so that the first access allocates nothing.
[[gnu::tls_model("initial-exec")]] thread_local volatile std::sig_atomic_t isReading = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile std::sig_atomic_t isDamaged = 0;

struct sigaction previousAction;  // written before the handler is there
std::uintptr_t pageSize;

/// Puts a page of zeros in place of the one around an address.
bool ReplacePage(std::uintptr_t address) {
    void* const page = reinterpret_cast<void*>(address / pageSize * pageSize);
    return mmap(page, pageSize, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED;
}

/// Calls only what a signal handler may call.
void OnBusError(int signal, siginfo_t* info, void*) {
    const int savedError = errno;
    const bool isOfKernel = info->si_code > 0;
    if (isOfKernel && isReading != 0 && ReplacePage(reinterpret_cast<std::uintptr_t>(info->si_addr))) {
        isDamaged = 1;
    } else {
        // It is blocked here, and comes again when this returns.
        sigaction(signal, &previousAction, nullptr);
        raise(signal);
    }
    errno = savedError;
}

bool InstallHandler() {
    pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    struct sigaction action {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGBUS, nullptr, &previousAction) == 0 && sigaction(SIGBUS, &action, nullptr) == 0;
}

/// The kernel ends the process at once if the signal is blocked.
void UnblockSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGBUS);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

MappedReads::MappedReads() {
    [[maybe_unused]] static const bool isInstalled = InstallHandler();
    UnblockSignal();
    isDamaged = 0;
    isReading = 1;
}

MappedReads::~MappedReads() { isReading = 0; }

bool MappedReads::takeDamage() {
    const bool result = isDamaged != 0;
    isDamaged = 0;
    return result;
}

}  // namespace kv::facts
