#include "platform/backend.h"

#include <cstdio>
#include <memory>

#include "platform/owned_handle.h"
#include "platform/utf.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <shellapi.h>

namespace platform {

namespace {

/// On a computer that nobody sits at, no message box may wait for a button.
void SettleProcess() { ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX); }

}  // namespace

void InstallBackend() {
    SettleProcess();
    CurrentOperations<ClockOperations>() = WindowsClock();
    CurrentOperations<CryptoOperations>() = WindowsCrypto();
    CurrentOperations<FileOperations>() = WindowsFiles();
    CurrentOperations<MessageOperations>() = WindowsMessages();
    CurrentOperations<ProcessOperations>() = WindowsProcesses();
    CurrentOperations<SocketOperations>() = WindowsSockets();
    CurrentOperations<SystemFactOperations>() = WindowsSystemFacts();
    CurrentOperations<ThreadOperations>() = WindowsThreads();
}

/// Not the narrow arguments of main: they have lost what the system's code page cannot hold.
std::vector<std::string> CommandLineWords(int, char**) {
    int count = 0;
    const std::unique_ptr<wchar_t*, ReleasedBy<::LocalFree>> words(::CommandLineToArgvW(::GetCommandLineW(), &count));
    std::vector<std::string> utf8;
    for (int at = 0; words && at < count; ++at) utf8.push_back(Utf8FromWide(Utf16FromWide(words.get()[at])));
    return utf8;
}

}  // namespace platform
