// Installs this system's own records of operations behind the headers of this folder.
#pragma once

#include <string>
#include <vector>

namespace platform {

/// Makes the records of the running system the current ones, but for those below. Called once, first thing in every
/// program and test.
void InstallBackend();

// Each of these stands on libraries of its own. A program that uses it installs it after InstallBackend, and links its
// target.
void InstallRegistry();  // kv_platform_registry
void InstallHttp();      // kv_platform_http
void InstallServices();  // kv_platform_services: this program as a service, and the computer's services
void InstallWmi();       // kv_platform_wmi

/// The words of this process's command line in UTF-8, the program's own name first, of what main was given.
std::vector<std::string> CommandLineWords(int argc, char** argv);

}  // namespace platform
