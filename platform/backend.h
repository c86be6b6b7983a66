// Installs this system's own records of operations behind the headers of this folder.
#pragma once

#include <string>
#include <vector>

namespace platform {

/// Makes the running system's records current, all but those below, and prepares the process: a file that grows too
/// large, and a connection that breaks, become errors and end nothing, and the backend learns where its state is. Every
/// program and every test calls it once, before anything else.
void InstallBackend();

// Each of these needs libraries of its own. A program that uses one calls it after InstallBackend, and links its
// target.
void InstallRegistry();  // kv_platform_registry
void InstallHttp();      // kv_platform_http
void InstallServices();  // kv_platform_services: this program as a service, and the computer's services
void InstallWmi();       // kv_platform_wmi

/// The words of this process's command line in UTF-8, the program's own name first. Takes what main was given.
[[nodiscard]] std::vector<std::string> CommandLineWords(int argc, char** argv);

}  // namespace platform
