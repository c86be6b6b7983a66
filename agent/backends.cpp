#include "agent/backends.h"

#include "platform/backend.h"

namespace kv {

void InstallBackends() {
    platform::InstallBackend();
    platform::InstallHttp();
    platform::InstallRegistry();
    platform::InstallServices();
    platform::InstallWmi();
}

}  // namespace kv
