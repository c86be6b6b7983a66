// The agent's program as it is, but for its sleeps, which take a thirtieth of their time: a look at the server's
// requests comes every second. Clocks run as they do, so each workflow is collected once per schedule.
#include <cstdio>
#include <cstdlib>

#include "agent/entry.h"
#include "platform/backend.h"
#include "platform/clock.h"

int main(int argc, char** argv) {
    platform::InstallBackend();
    platform::ClockOperations& clock = platform::CurrentOperations<platform::ClockOperations>();
    clock.Sleep = [sleep = clock.Sleep](std::uint32_t milliseconds) { sleep(milliseconds / 30); };
    const int exitCode = kv::Main(argc, argv);
    std::fflush(nullptr);
    std::_Exit(exitCode);
}
