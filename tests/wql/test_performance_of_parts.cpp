// Performance classes of what this machine may lack: memory nodes, clock rates, thermal zones, shared objects. Each
// test runs again in namespaces, where files that it writes stand in the place of the kernel's.
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using PerformanceOfParts = WmiTest;
using Texts = std::vector<std::string>;

void WriteFiles(const fs::path& folder, const std::vector<std::pair<std::string, std::string>>& files) {
    for (const auto& [name, text] : files) {
        fs::create_directories((folder / name).parent_path());
        std::ofstream(folder / name) << text << '\n';
    }
}

/// Some properties of each object of a formatted class, and of the raw one if it holds the same figures.
void ExpectObjects(const std::string& name, const std::string& properties, const Texts& objects, bool rawIsSame) {
    for (const char* kind : {"Formatted", "Raw"}) {
        if (kind == std::string("Raw") && !rawIsSame) continue;
        const WmiResult result = RunWmiQuery(fmt::format("SELECT * FROM Win32_Perf{}Data_{}", kind, name));
        Texts found;
        for (const WmiRow& row : result.rows) found.push_back(PropertyTexts(row, properties));
        EXPECT_EQ(result.status, 0u) << kind;
        EXPECT_EQ(found, objects) << kind;
    }
}

TEST_F(PerformanceOfParts, ThermalZones) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "mount -t tmpfs tmpfs /sys/class/thermal");
    const std::string properties = "Name,Temperature,HighPrecisionTemperature,PercentPassiveLimit,ThrottleReasons";
    ExpectObjects("Counters_ThermalZoneInformation", properties, {}, true);
    WriteFiles("/sys/class/thermal", {
                                         {"cooling_device0/type", "Processor"},
                                         {"thermal_zone10/type", "broken"},
                                         {"thermal_zone10/temp", "-273200"},
                                         {"thermal_zone0/type", "acpitz"},
                                         {"thermal_zone0/temp", "45000"},
                                         {"thermal_zone0/trip_point_0_type", "active"},
                                         {"thermal_zone0/trip_point_1_type", "passive"},
                                         {"thermal_zone0/cdev0_trip_point", "1"},
                                         {"thermal_zone0/cdev0/cur_state", "3"},
                                         {"thermal_zone0/cdev0/max_state", "10"},
                                         {"thermal_zone0/cdev1_trip_point", "0"},
                                         {"thermal_zone0/cdev1/cur_state", "5"},
                                         {"thermal_zone0/cdev1/max_state", "5"},
                                         {"thermal_zone2/type", "acpitz"},
                                         {"thermal_zone2/temp", "-500"},
                                         {"thermal_zone3/type", "asleep"},
                                     });
    ExpectObjects(
        "Counters_ThermalZoneInformation", properties,
        {"acpitz 318 3182 70 1", "acpitz#1 273 2727 100 0", "asleep NULL NULL 100 0", "broken NULL NULL 100 0"}, true);
}

TEST_F(PerformanceOfParts, ProcessorsOfNodesAndTheirClocks) {
    const fs::path cpuInfo = fs::temp_directory_path() / "kv-cpuinfo";
    if (!IsInNamespaces()) {
        std::ofstream(cpuInfo) << "processor\t: 0\ncpu MHz\t\t: 1500.7\n\n";
        RunInNamespaces("--mount", fmt::format("mount -t tmpfs tmpfs /sys/devices/system/cpu && "
                                               "mount -t tmpfs tmpfs /sys/devices/system/node && "
                                               "mount --bind {} /proc/cpuinfo",
                                               cpuInfo.string()));
        fs::remove(cpuInfo);
        return;
    }
    WriteFiles("/sys/devices/system", {
                                          {"node/online", "0-1"},
                                          {"node/node0/cpulist", "1-4095"},
                                          {"node/node1/cpulist", "0"},
                                          {"cpu/cpu0/cpufreq/base_frequency", "2000000"},
                                          {"cpu/cpu0/cpufreq/cpuinfo_max_freq", "4000000"},
                                          {"cpu/cpu0/cpufreq/scaling_max_freq", "3000000"},
                                          {"cpu/cpu0/cpufreq/stats/time_in_state", "1000000 100\n3000000 300"},
                                      });
    int state = 0;
    for (const auto& [name, time, usage] : std::initializer_list<std::tuple<const char*, const char*, const char*>>{
             {"POLL", "5", "5"}, {"C1_ACPI", "1000", "10"}, {"C1E", "2000", "20"}, {"C10", "7000", "40"}})
        WriteFiles(fmt::format("/sys/devices/system/cpu/cpu0/cpuidle/state{}", state++),
                   {{"name", name}, {"time", time}, {"usage", usage}});
    const std::string clocks = " 1500 37 75 125";
    Texts expected{"1,0" + clocks};
    const int others = std::atoi(RunShell("grep -c ^cpu[1-9] /proc/stat").output.c_str());
    for (int at = 0; at < others; ++at) expected.push_back(fmt::format("0,{} NULL NULL NULL NULL", at));
    if (others > 0) expected.emplace_back("0,_Total NULL NULL NULL NULL");
    expected.push_back("1,_Total" + clocks);
    expected.push_back("_Total" + clocks);
    ExpectObjects("Counters_ProcessorInformation",
                  "Name,ProcessorFrequency,PercentofMaximumFrequency,PercentPerformanceLimit,"
                  "PercentProcessorPerformance",
                  expected, false);
    const WmiResult raw =
        RunWmiQuery("SELECT * FROM Win32_PerfRawData_Counters_ProcessorInformation WHERE Name = '1,_Total'");
    ASSERT_EQ(raw.rows.size(), 1u);
    EXPECT_EQ(PropertyTexts(raw.rows[0], "PercentProcessorPerformance,PercentProcessorPerformance_Base"), "500000 4000")
        << "4 seconds at 125 percent";
    for (const char* from :
         {"Counters_ProcessorInformation WHERE Name = '1,_Total'", "PerfOS_Processor WHERE Name = '0'"}) {
        const WmiResult idle = RunWmiQuery(std::string("SELECT * FROM Win32_PerfRawData_") + from);
        ASSERT_EQ(idle.rows.size(), 1u);
        EXPECT_EQ(PropertyTexts(idle.rows[0], "C1TransitionsPersec,C2TransitionsPersec,C3TransitionsPersec"),
                  "30 0 40");
    }
    EXPECT_EQ(PropertyTexts(raw.rows[0], "AverageIdleTime,AverageIdleTime_Base,IdleBreakEventsPersec"), "100050 75 75");
    const WmiResult formatted =
        RunWmiQuery("SELECT * FROM Win32_PerfFormattedData_Counters_ProcessorInformation WHERE Name = '1,_Total'");
    EXPECT_EQ(PropertyText(formatted.rows.at(0), "AverageIdleTime"), "1334");  // 10005 microseconds in 75 stays
}

TEST_F(PerformanceOfParts, SharedObjects) {
    if (!IsInNamespaces()) {
        return RunInNamespaces("--mount --ipc",
                               "mount -t tmpfs tmpfs /dev/shm && ipcmk -S 3 && ipcmk -M 4096 && ipcmk -M 4096 && "
                               "touch /dev/shm/sem.one /dev/shm/two /dev/shm/three && mkdir /dev/shm/folder");
    }
    const auto numberAfter = [](const std::string& words) {
        return std::atoi(RunShell("ipcs -u | sed -n 's/^" + words + "//p'").output.c_str());
    };
    const int semaphores = numberAfter("allocated semaphores = ");
    const int segments = numberAfter("segments allocated ");
    EXPECT_EQ(semaphores * segments, 6);
    ExpectObjects("PerfOS_Objects", "Semaphores,Sections,Events,Mutexes",
                  {fmt::format("{} {} NULL NULL", semaphores + 1, segments + 2)}, true);
}

TEST_F(PerformanceOfParts, ProcessesThatProcHidesAreToldOf) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "mount -t proc -o hidepid=2 proc /proc");
    ASSERT_EQ(setgid(65534), 0);
    ASSERT_EQ(setuid(65534), 0);
    const std::tuple<std::string, const char*, std::size_t> rows[] = {
        {"Processes", "PerfRawData_PerfOS_Objects", 1},
        {"Processes", "PerfFormattedData_PerfOS_System", 1},
        {"NumberOfProcesses", "OperatingSystem", 1},
        {"IOReadBytesPersec", "PerfRawData_PerfProc_Process", 2},  // of others, and of this user's, who was another
        {"ReadTransferCount", "Process", 2},
        {"ThreadCount", "PerfRawData_PerfProc_Process WHERE Name = '_Total'", 1},
    };
    for (const auto& [property, from, notices] : rows) {
        const WmiResult result = RunWmiQuery(fmt::format("SELECT {} FROM Win32_{}", property, from));
        EXPECT_EQ(result.notices.size(), notices) << from;
        EXPECT_EQ(PropertyText(result.rows.at(0), property), "NULL") << from;
    }
}

}  // namespace
}  // namespace kv::test
