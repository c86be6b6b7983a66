// The agent's program with sleeps and waits for threads that take a thirtieth of their time: it fetches requests every
// second, and waits two thirds of a second for the server when it stops. Clocks run at their normal pace, so a workflow
// still keeps its schedule.
#include <cstdio>
#include <cstdlib>

#include "agent/backends.h"
#include "agent/entry.h"
#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/threads.h"

namespace {

constexpr std::uint32_t haste = 30;

}  // namespace

int main(int argc, char** argv) {
    kv::InstallBackends();
    platform::ClockOperations& clock = platform::CurrentOperations<platform::ClockOperations>();
    clock.Sleep = [sleep = clock.Sleep](std::uint32_t milliseconds) { sleep(milliseconds / haste); };
    platform::ThreadOperations& threads = platform::CurrentOperations<platform::ThreadOperations>();
    threads.WaitForThread = [wait = threads.WaitForThread](platform::ThreadHandle thread, std::uint32_t milliseconds) {
        return wait(thread, milliseconds / haste);
    };
    const int exitCode = kv::Main(platform::CommandLineWords(argc, argv));
    std::fflush(nullptr);
    std::_Exit(exitCode);
}
