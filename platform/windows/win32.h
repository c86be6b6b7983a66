// What the sources of the Windows backend share: the system's headers, one maker for each record of operations, and the
// few routines that turn the agent's text and error numbers into this system's own.
//
// Private to platform/windows/. Everything is callable from any thread.
//
// The records' operations have the names of the system's own, which are therefore called with a leading "::".
#pragma once

#include <string>
#include <string_view>
#include <windows.h>
#include <winsock2.h>

#include "platform/clock.h"
#include "platform/crypto.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/service_host.h"
#include "platform/service_manager.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/threads.h"
#include "platform/wmi.h"

namespace platform {

/// Makers of the records; InstallBackend calls each once.
ClockOperations WindowsClock();
CryptoOperations WindowsCrypto();
FileOperations WindowsFiles();
HttpOperations WindowsHttp();
MessageOperations WindowsMessages();
ProcessOperations WindowsProcesses();
RegistryOperations WindowsRegistry();
ServiceHostOperations WindowsServiceHost();
ServiceManagerOperations WindowsServiceManager();
SocketOperations WindowsSockets();
SystemFactOperations WindowsSystemFacts();
ThreadOperations WindowsThreads();
WmiOperations WindowsWmi();

/// The agent's wide text as the system's, and back. Both are UTF-16, but C++ has two types for it.
inline std::wstring WideOf(std::u16string_view text) { return {text.begin(), text.end()}; }
inline std::u16string Utf16FromWide(std::wstring_view wide) { return {wide.begin(), wide.end()}; }

/// A path as the system takes it. A zero character, which would end it, becomes U+FFFD.
[[nodiscard]] std::wstring NativePathOf(std::u16string_view path);

/// The number of this thread's last failed call; generalFailure when the call has not set one. The system's numbers are
/// the agent's.
[[nodiscard]] Error LastError();

/// The result of a call that says whether it has succeeded.
[[nodiscard]] inline Error ResultOf(BOOL succeeded) { return succeeded ? error::success : LastError(); }

}  // namespace platform
