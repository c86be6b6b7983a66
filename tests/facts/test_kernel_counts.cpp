// Texts in which the kernel counts, and lists of numbers.
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "facts/hardware/processor_clock.h"
#include "facts/hardware/processor_nodes.h"
#include "facts/network/tcp_connections.h"
#include "facts/processes/perf_texts.h"
#include "facts/processes/shared_objects.h"

namespace kv::test {
namespace {

using namespace facts;

TEST(KernelCounts, ListsOfNumbers) {
    using Numbers = std::vector<std::uint32_t>;
    const std::pair<const char*, Numbers> rows[] = {
        {"0-2,8,10-11\n", {0, 1, 2, 8, 10, 11}},
        {"7", {7}},
        {"", {}},
        {"3-1", {}},
        {"0,x", {}},
        {"0-", {}},
        {"0-4294967295", {}},
        {"0-65535,0-65535", {}},
    };
    for (const auto& [text, numbers] : rows) EXPECT_EQ(ParseNumberList(text), numbers) << text;
}

TEST(KernelCounts, TimersAreTheClocksInterrupts) {
    using Sums = std::map<std::uint32_t, std::uint64_t>;
    const std::tuple<const char*, const char*, Sums> rows[] = {
        {"x86",
         "  CPU0 CPU1\n 24: 1 2 IO-APIC acpi\nLOC: 30 40 Local timer interrupts\nRES: 5 6 Rescheduling\n",
         {{0, 30}, {1, 40}}},
        {"ARM",
         "  CPU0 CPU2\n 11: 7 8 GICv3 27 Level arch_timer\n 12: 1 1 GICv3 28 Level kvm guest timer\n",
         {{0, 7}, {2, 8}}},
        {"no timer of its own", "  CPU0\n  0: 9 IO-APIC timer\n", {}},
        {"nothing", "", {}},
    };
    for (const auto& [title, text, sums] : rows) EXPECT_EQ(TimerInterruptsByProcessor(text), sums) << title;
}

TEST(KernelCounts, TextsOfAnotherFormCountNothing) {
    for (const char* text : {"", "(none)", "1000000", "1000000 0\n", "800000 10\nfast 3\n"})
        EXPECT_FALSE(ParseClockTimes(text)) << text;
    for (const char* text : {"", "Tcp: InSegs",
                             "Tcp: ActiveOpens PassiveOpens AttemptFails EstabResets InSegs OutSegs "
                             "RetransSegs\nTcp: 1 2 3 4 5 6\n"})
        EXPECT_FALSE(ParseTcpCounts(text)) << text;
    const auto counts = ParseTcpCounts(
        "Ip: A\nIp: 1\nTcp: MaxConn ActiveOpens PassiveOpens AttemptFails EstabResets InSegs OutSegs RetransSegs New\n"
        "Tcp: -1 1 2 3 4 5 6 18446744073709551615 8\n");
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->sentAgain, UINT64_MAX);
    EXPECT_EQ(CountSemaphores("key semid perms nsems\n0 1 600 3\n0 2 600 250\n0 3 600 many\n"), 253u);
    EstablishedConnections connections;
    CountConnections(std::string(30, '\xff'), connections);
    EXPECT_EQ(connections.version6, 0u) << "a length beyond the end";
}

}  // namespace
}  // namespace kv::test
