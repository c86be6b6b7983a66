// What kind of computer it is, its processors, and texts in which the kernel counts.
#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "facts/hardware/computer_facts.h"
#include "facts/hardware/processor_clock.h"
#include "facts/hardware/processor_load.h"
#include "facts/hardware/processor_nodes.h"
#include "facts/network/host_names.h"
#include "facts/network/tcp_connections.h"
#include "facts/processes/perf_texts.h"
#include "facts/processes/shared_objects.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::chrono_literals;

TEST(ComputerFacts, TheChassisTellsTheKindOfSystem) {
    const std::tuple<int, int, int> rows[] = {{3, 1, 1}, {10, 2, 2}, {30, 2, 8}, {31, 2, 2}, {23, 4, 4}, {2, 0, 0}};
    for (const auto& [chassis, type, extendedType] : rows) {
        EXPECT_EQ(SystemTypeOfChassis(static_cast<unsigned>(chassis)), type) << chassis;
        EXPECT_EQ(ExtendedSystemTypeOfChassis(static_cast<unsigned>(chassis)), extendedType) << chassis;
    }
}

TEST(ComputerFacts, AreReadFromTheFirmwaresTexts) {
    EXPECT_EQ(FirmwareDate("04/30/2026"), u"20260430000000.000000+000");
    for (const char* text : {"", "4/30/2026", "04-30-2026", "02/30/2026"}) EXPECT_FALSE(FirmwareDate(text)) << text;
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"QEMU", "Standard PC", true},         {"Microsoft Corporation", "Virtual Machine", true},
        {"Microsoft Corporation", "X", false}, {"Amazon EC2", "t3.micro", true},
        {"Amazon EC2", "m5.metal", false},
    };
    for (const auto& [vendor, model, isVirtual] : rows) EXPECT_EQ(IsVirtualMachine(vendor, model), isVirtual) << model;
    for (const char* entry : {"_SM3_12\x03\x04", "_SM_12\x03\x04"}) {
        const auto version = SmbiosVersionOf(entry);
        EXPECT_TRUE(version && version->major == 3 && version->minor == 4) << entry;
    }
    EXPECT_FALSE(SmbiosVersionOf("_SM_12\x03"));
}

TEST(ComputerFacts, TheWorkgroupStandsInTheGlobalSectionOfSambasConfiguration) {
    const std::pair<const char*, const char*> rows[] = {
        {"[global]\n   workgroup = OFFICE\n", "OFFICE"},
        {"# [global]\r\n[ Global ]\r\nWork Group=Two words \r\n", "Two words"},
        {"workgroup = EARLY\n[homes]\nworkgroup = NOT\n", "EARLY"},
        {"[global]\n; workgroup = OLD\n#workgroup = OLD\nserver string = a workgroup = b\n", ""},
        {"[global]\nworkgroup = FIRST\n[print$]\n[global]\nworkgroup = LAST\n", "LAST"},
        {"[global\nworkgroup", ""},
    };
    for (const auto& [text, workgroup] : rows) EXPECT_EQ(WorkgroupInSamba(text), workgroup) << text;
    EXPECT_EQ(WorkgroupName("/nowhere/smb.conf"), "WORKGROUP");
    EXPECT_EQ(WorkgroupName("/"), std::nullopt) << "it cannot be read";
}

TEST(ProcessorLoad, CountsSinceASampleAtLeastASecondOld) {
    LoadHistory history;
    const std::vector<CpuBlock> blocks = ParseCpuInfo("processor: 0\n\nprocessor: 1\n");
    const std::tuple<const char*, std::chrono::milliseconds, const char*, unsigned> rows[] = {
        {"since the start", 0ms, "cpu 9 9\ncpu0 10 10 10 50 10 5 5 0 0\ncpu1 10 10 10 60 0 0 0 10\nintr 7\n", 40},
        {"the first is too young: since the start", 999ms, "cpu0 40 10 10 50 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n",
         48},
        {"since the first", 1000ms, "cpu0 60 10 10 100 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n", 50},
        {"the second is too young: still since the first", 1500ms,
         "cpu0 60 10 10 150 10 5 5 0\ncpu1 10 10 10 60 0 0 0 10\n", 33},
        {"since the second; a counter went back and a processor is gone", 2500ms, "cpu0 60 10 10 400 9 5 5 0\n", 0},
        {"a processor that comes back counts since the start", 4000ms, "cpu0 60 10 10 400 9 5 5 0\ncpu1 30 0 0 10\n",
         75},
        {"no time has passed", 9000ms, "cpu0 60 10 10 400 9 5 5 0\ncpu1 30 0 0 10\n", 0},
    };
    for (const auto& [title, at, stat, percent] : rows) {
        TimesByProcessor sample;
        for (const ProcessorTimes& times : ParseProcessorTimes(stat)) sample[times.number] = times;
        const TimesByProcessor base = history.Exchange(sample, std::chrono::steady_clock::time_point(at));
        EXPECT_EQ(BusyPercent(blocks, base, sample), percent) << title;
    }
}

TEST(KernelCounts, ListsOfNumbers) {
    using Numbers = std::vector<std::uint32_t>;
    EXPECT_EQ(ParseNumberList("0-2,8,10-11\n"), (Numbers{0, 1, 2, 8, 10, 11}));
    for (const char* text : {"", "3-1", "0,x", "0-", "0-4294967295", "0-65535,0-65535"})
        EXPECT_EQ(ParseNumberList(text), Numbers()) << text;
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
