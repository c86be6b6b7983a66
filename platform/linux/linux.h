// What the sources of the Linux backend share: one maker for each record of operations, and the few routines that
// turn the agent's names, paths and error numbers into this system's own.
//
// Private to platform/linux/. Everything is callable from any thread.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

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

/// Where services are made, and how long to wait for an answer of the service manager.
struct ServiceManagerPlace {
    std::string unitDirectory = "/etc/systemd/system";  // that of this computer's administrator
    std::chrono::milliseconds patience{5000};
};

/// Makers of the records. The Install... routines (platform/backend.h) call each once.
ClockOperations LinuxClock();
CryptoOperations LinuxCrypto();
FileOperations LinuxFiles();
HttpOperations LinuxHttp();
MessageOperations LinuxMessages();
ProcessOperations LinuxProcesses();
RegistryOperations LinuxRegistry();
ServiceHostOperations LinuxServiceHost();
ServiceManagerOperations LinuxServiceManager(const ServiceManagerPlace& place = {});
SocketOperations LinuxSockets();
SystemFactOperations LinuxSystemFacts();
ThreadOperations LinuxThreads();

/// The directory that holds registry.db and the drives: KVAGENT_STATE_DIR, else /var/lib/kvagent; absolute, without a
/// slash at the end. The environment is read by InstallBackend, and only then. Nothing creates the directory here.
const std::string& StateDirectory();
inline constexpr const char* usualStateDirectory = "/var/lib/kvagent";
inline constexpr const char* stateDirectoryVariable = "KVAGENT_STATE_DIR";

/// Reads the state directory from the environment. Called by InstallBackend, before any other thread runs.
void ReadStateDirectory();

/// Has large pieces of memory go back to the system as soon as they are freed. Left alone, the C library raises its
/// bounds with each such piece, up to 64 MB, and keeps that much for each thread, where malloc_trim does not look.
/// Called by InstallBackend.
void BoundFreeMemory();

/// This system's form of a path, in UTF-8: backslashes become slashes, and a path on a drive becomes one in the state
/// directory ("c:\a\b" is drive_c/a/b), where ".." does not climb over the drive's root. A zero character becomes
/// U+FFFD.
[[nodiscard]] std::string NativePathOf(std::u16string_view path);

/// The number for an errno value; generalFailure for one without a counterpart.
[[nodiscard]] Error ErrorFromErrno(int code);

}  // namespace platform
