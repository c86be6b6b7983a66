// Performance classes, and Win32_Process, over files that stand for the kernel's. Each test runs again in namespaces.
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include "tests/support/linux/namespaces.h"
#include "tests/support/wmi_query.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

using PerformanceFiles = WmiTest;

void Write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text << '\n';
}

/// While one lives, /proc is an empty folder. Only for a test that runs in namespaces.
struct EmptyProc {
    const int failure = mount("tmpfs", "/proc", "tmpfs", 0, "");
    ~EmptyProc() {
        if (failure == 0) umount2("/proc", MNT_DETACH);
    }
};

/// Two processors in two memory nodes, a disk, an interface and two processes.
const std::pair<const char*, std::string> kernelFiles[] = {
    {"/proc/loadavg", "0.10 0.20 0.30 2/345 6789"},
    {"/proc/stat", "cpu 0 0\ncpu0 100 20 300 4000 500 6 7 8 0 0\ncpu1 0 0 0 0 0 0 0 0\nctxt 12345\nprocs_running 5"},
    {"/proc/interrupts", "  CPU0 CPU1\n  0: 30 0 IO-APIC timer\nLOC: 400 0 Local timer interrupts\nERR: 5"},
    {"/proc/softirqs", "  CPU0 CPU1\nHI: 1 0\nTIMER: 50 0"},
    {"/proc/vmstat",
     "nr_dirty 5\nnr_written 70\nnr_dirty_threshold 600\npgpgin 4000\npgpgout 8000\npgfault 1000\npgmajfault 20"},
    {"/proc/meminfo",
     "MemTotal: 10000 kB\nMemFree: 1000 kB\nMemAvailable: 5003 kB\nBuffers: 200 kB\nCached: 3000 kB\n"
     "SwapTotal: 40000 kB\nDirty: 7 kB\nWriteback: 1 kB\nSReclaimable: 50 kB\nSUnreclaim: 60 kB\n"
     "CommitLimit: 9000 kB\nCommitted_AS: 8000 kB"},
    {"/proc/sysvipc/sem", "key semid perms nsems\n0 1 600 3"},
    {"/proc/sysvipc/shm", "key shmid perms size\n0 1 600 4096\n0 2 600 4096"},
    {"/dev/shm/sem.one", ""},
    {"/dev/shm/two", ""},
    {"/dev/shm/folder/three", ""},
    {"/proc/diskstats",
     "   8       0 kvd 10 0 2000 300 40 0 5000 600 7 8000 900 0 0 0 0 0 0\n"
     "   8       1 kvd1 9 0 8 7 6 0 5 4 3 2 1 0 0 0 0 0 0"},
    {"/proc/self/mountinfo", "20 1 8:1 / / rw - ext4 /dev/kvd1 rw\n21 20 0:40 / /mnt rw - tmpfs tmpfs rw"},
    {"/sys/block/kvd/device/x", ""},
    {"/sys/block/kvd/kvd1/partition", "1"},
    {"/sys/dev/block/x", ""},
    {"/mnt/used", std::string((2 << 20) - 1, 'x')},
    {"/proc/net/dev",
     "Inter-|   Receive                            |  Transmit\n face |bytes packets errs drop|bytes packets errs\n"
     "    lo:       1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n   kv0: 1000 20 3 4 5 6 7 8 9000 110 12 13 14 15 16 17"},
    {"/sys/class/net/kv0/speed", "1000"},
    {"/proc/1/stat", "gone"},
    {"/proc/71/stat",
     "71 (odd) S (na me) S 3 4 5 0 -1 0 100 0 20 0 300 40 0 0 25 5 7 0 5000 8192000 90 "
     "0 0 0 0 0 0 0 0 0 0 0 0 0 17"},
    {"/proc/71/status", "VmPeak: 9000 kB\nVmHWM: 500 kB\nRssAnon: 70 kB\nVmSwap: 8 kB"},
    {"/proc/71/io", "rchar: 1000\nwchar: 200\nsyscr: 30\nsyscw: 4"},
    {"/proc/cpuinfo", "processor\t: 0\ncpu MHz\t\t: 1500.7\n"},
    {"/sys/devices/system/node/online", "0-1"},
    {"/sys/devices/system/node/node0/cpulist", "1-4095"},
    {"/sys/devices/system/node/node1/cpulist", "0"},
    {"/sys/devices/system/cpu/cpu0/cpufreq/base_frequency", "2000000"},
    {"/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "4000000"},
    {"/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq", "3000000"},
    {"/sys/devices/system/cpu/cpu0/cpufreq/stats/time_in_state", "1000000 100\n3000000 300"},
    {"/sys/class/thermal/cooling_device0/type", "Processor"},
    {"/sys/class/thermal/thermal_zone10/type", "broken"},
    {"/sys/class/thermal/thermal_zone10/temp", "-273200"},
    {"/sys/class/thermal/thermal_zone0/type", "acpitz"},
    {"/sys/class/thermal/thermal_zone0/temp", "45000"},
    {"/sys/class/thermal/thermal_zone0/trip_point_0_type", "active"},
    {"/sys/class/thermal/thermal_zone0/trip_point_1_type", "passive"},
    {"/sys/class/thermal/thermal_zone0/cdev0_trip_point", "1"},
    {"/sys/class/thermal/thermal_zone0/cdev0/cur_state", "3"},
    {"/sys/class/thermal/thermal_zone0/cdev0/max_state", "10"},
    {"/sys/class/thermal/thermal_zone0/cdev1_trip_point", "0"},
    {"/sys/class/thermal/thermal_zone0/cdev1/cur_state", "5"},
    {"/sys/class/thermal/thermal_zone0/cdev1/max_state", "5"},
    {"/sys/class/thermal/thermal_zone2/type", "acpitz"},
    {"/sys/class/thermal/thermal_zone2/temp", "-500"},
    {"/sys/class/thermal/thermal_zone3/type", "asleep"},
};

TEST_F(PerformanceFiles, GiveTheirCounters) {
    if (!IsInNamespaces()) {
        return RunInNamespaces("--mount",
                               "mount -t tmpfs tmpfs /sys && mount -t tmpfs tmpfs /dev/shm && "
                               "mount -t tmpfs -o size=8M tmpfs /mnt");
    }
    const EmptyProc proc;
    ASSERT_EQ(proc.failure, 0);
    for (const auto& [name, text] : kernelFiles) Write(name, text);
    fs::create_symlink("/sys/block/kvd/kvd1", "/sys/dev/block/8:1");
    int state = 0;
    for (const auto& [name, time, usage] : std::initializer_list<std::tuple<const char*, const char*, const char*>>{
             {"POLL", "5", "5"}, {"C1_ACPI", "1000", "10"}, {"C1E", "2000", "20"}, {"C10", "7000", "40"}}) {
        const fs::path folder = fmt::format("/sys/devices/system/cpu/cpu0/cpuidle/state{}", state++);
        Write(folder / "name", name);
        Write(folder / "time", time);
        Write(folder / "usage", usage);
    }
    const std::pair<const char*, const char*> rows[] = {
        {"Threads,Processes FROM Win32_PerfFormattedData_PerfOS_System", "345 2"},
        {"ContextSwitchesPersec,ProcessorQueueLength FROM Win32_PerfRawData_PerfOS_System", "12345 3"},
        {"PageFaultsPersec,PageReadsPersec,PagesInputPersec,PagesOutputPersec,PagesPersec FROM "
         "Win32_PerfRawData_PerfOS_Memory",
         "1000 20 1000 2000 3000"},
        {"AvailableBytes,AvailableKBytes,AvailableMBytes,CommittedBytes,CacheBytes,SystemCacheResidentBytes,"
         "FreeAndZeroPageListBytes,PoolNonpagedBytes,PoolPagedBytes,ModifiedPageListBytes,CommitLimit,"
         "PercentCommittedBytesInUse FROM Win32_PerfFormattedData_PerfOS_Memory",
         "5123072 5003 4 8192000 3328000 3276800 1024000 61440 51200 8192 51200000 16"},
        {"PercentIdleTime,PercentProcessorTime,PercentPrivilegedTime,PercentInterruptTime,PercentDPCTime,"
         "PercentUserTime,InterruptsPersec,DPCsQueuedPersec,C1TransitionsPersec,C2TransitionsPersec,"
         "C3TransitionsPersec FROM Win32_PerfRawData_PerfOS_Processor WHERE Name = '0'",
         "450000000 450000000 31300000 600000 700000 12000000 430 51 30 0 40"},
        {"PercentIdleTime,PercentPriorityTime,PercentProcessorUtility,PercentProcessorUtility_Base,"
         "PercentPrivilegedUtility,ClockInterruptsPersec,C3TransitionsPersec,AverageIdleTime,AverageIdleTime_Base,"
         "IdleBreakEventsPersec FROM Win32_PerfRawData_Counters_ProcessorInformation WHERE Name = '1,0'",
         "450000000 42100000 441000 49410 313000 400 40 100050 75 75"},
        {"PercentProcessorTime,PercentIdleTime,PercentUserTime,PercentPrivilegedTime,PercentProcessorUtility,"
         "AverageIdleTime FROM Win32_PerfFormattedData_Counters_ProcessorInformation WHERE Name = '1,_Total'",
         "9 91 2 6 9 1334"},  // 10005 microseconds in 75 stays
        {"Name,ProcessorFrequency,PercentofMaximumFrequency,PercentPerformanceLimit,PercentProcessorPerformance FROM "
         "Win32_PerfFormattedData_Counters_ProcessorInformation",
         "1,0 1500 37 75 125\n0,0 NULL NULL NULL NULL\n0,_Total NULL NULL NULL NULL\n1,_Total 1500 37 75 125\n"
         "_Total 1500 37 75 125"},
        {"PercentProcessorPerformance,PercentProcessorPerformance_Base FROM "
         "Win32_PerfRawData_Counters_ProcessorInformation WHERE Name = '1,_Total'",
         "500000 4000"},  // 4 seconds at 125 percent
        {"DirtyPages,DirtyPageThreshold,DataFlushPagesPersec FROM Win32_PerfRawData_PerfOS_Cache", "5 600 70"},
        {"Threads,Processes,Semaphores,Sections,Events FROM Win32_PerfFormattedData_PerfOS_Objects", "345 2 4 3 NULL"},
        {"Name,Temperature,HighPrecisionTemperature,PercentPassiveLimit,ThrottleReasons FROM "
         "Win32_PerfRawData_Counters_ThermalZoneInformation",
         "acpitz 318 3182 70 1\nacpitz#1 273 2727 100 0\nasleep NULL NULL 100 0\nbroken NULL NULL 100 0"},
        {"Name,DiskReadsPersec,DiskReadBytesPersec,PercentDiskReadTime,DiskWritesPersec,DiskWriteBytesPersec,"
         "PercentDiskWriteTime,CurrentDiskQueueLength,PercentDiskTime,DiskTransfersPersec,DiskBytesPersec,"
         "AvgDiskBytesPerRead_Base,AvgDisksecPerTransfer,AvgDisksecPerWrite_Base FROM "
         "Win32_PerfRawData_PerfDisk_PhysicalDisk WHERE Name <> '_Total'",
         "0 kvd 10 1024000 3000000 40 2560000 6000000 7 80000000 50 3584000 10 9000000 40"},
        {"Name,FreeMegabytes,PercentFreeSpace,DiskReadsPersec FROM Win32_PerfFormattedData_PerfDisk_LogicalDisk WHERE "
         "Name = '/mnt'",
         "/mnt 6 75 NULL"},
        {"FreeMegabytes,PercentFreeSpace,PercentFreeSpace_Base FROM Win32_PerfRawData_PerfDisk_LogicalDisk WHERE "
         "Name = '/mnt'",
         "6 6 8"},
        {"Name,BytesReceivedPersec,PacketsReceivedPersec,PacketsReceivedErrors,PacketsReceivedDiscarded,"
         "PacketsReceivedNonUnicastPersec,PacketsReceivedUnicastPersec,BytesSentPersec,PacketsSentPersec,"
         "PacketsOutboundErrors,PacketsOutboundDiscarded,BytesTotalPersec,PacketsPersec,CurrentBandwidth FROM "
         "Win32_PerfRawData_Tcpip_NetworkInterface",
         "kv0 1000 20 3 4 8 12 9000 110 12 13 10000 130 1000000000"},
        {"Name,IDProcess,CreatingProcessID,PageFaultsPersec,PercentUserTime,PercentPrivilegedTime,PercentProcessorTime,"
         "ThreadCount,VirtualBytes,WorkingSet,VirtualBytesPeak,WorkingSetPeak,WorkingSetPrivate,PrivateBytes,"
         "IOReadBytesPersec,IOWriteBytesPersec,IODataBytesPersec,IOReadOperationsPersec,IOWriteOperationsPersec,"
         "PriorityBase FROM Win32_PerfRawData_PerfProc_Process WHERE IDProcess = 71",
         "odd) S (na me 71 3 120 30000000 4000000 34000000 7 8192000 368640 9216000 512000 71680 79872 1000 200 1200 "
         "30 4 6"},
        {"Handle,Name,ParentProcessId,SessionId,PageFaults,UserModeTime,KernelModeTime,ThreadCount,VirtualSize,"
         "WorkingSetSize,PeakVirtualSize,PeakWorkingSetSize,PageFileUsage,PrivatePageCount,ReadTransferCount,"
         "WriteTransferCount,ReadOperationCount,WriteOperationCount,Priority FROM Win32_Process WHERE "
         "ProcessId = 71",
         "71 odd) S (na me 3 5 120 30000000 4000000 7 8192000 368640 9216000 500 78 79872 1000 200 30 4 6"},
    };
    for (const auto& [selected, texts] : rows) EXPECT_EQ(TextsOf(selected), texts) << selected;
    Write("/proc/sys/vm/overcommit_memory", "2");
    EXPECT_EQ(TextsOf("CommitLimit,PercentCommittedBytesInUse FROM Win32_PerfFormattedData_PerfOS_Memory"),
              "9216000 89");
    const std::vector<WmiRow> logical = RunWmiQuery("SELECT * FROM Win32_PerfFormattedData_PerfDisk_LogicalDisk").rows;
    ASSERT_EQ(logical.size(), 3u);
    EXPECT_EQ(PropertyTexts(logical[0], "Name,FreeMegabytes,CurrentDiskQueueLength"),
              "/ " + PropertyText(logical[2], "FreeMegabytes") + " 3")
        << "_Total leaves out what is in memory";
    const WmiRow disk = RunWmiQuery("SELECT * FROM Win32_PerfRawData_PerfDisk_PhysicalDisk").rows.at(0);
    const auto numberOf = [&disk](const char* name) { return std::stoull(PropertyText(disk, name)); };
    EXPECT_EQ(numberOf("PercentIdleTime") + numberOf("PercentDiskTime"), numberOf("Timestamp_PerfTime"));
}

TEST_F(PerformanceFiles, OfProcessesThatProcHidesAreToldOf) {
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
