#include <cstdio>
#include <cstdlib>

#include "agent/backends.h"
#include "agent/entry.h"
#include "platform/backend.h"

int main(int argc, char** argv) {
    kv::InstallBackends();
    const int exitCode = kv::Main(platform::CommandLineWords(argc, argv));
    // Other threads work until the process ends, so nothing static may be destroyed under them.
    std::fflush(nullptr);
    std::_Exit(exitCode);
}
