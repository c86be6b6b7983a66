// The families of classes, each in a source of its own. A new family is one source and one row in the table of
// wql/class_tree.cpp. The lists live as long as the process.
#pragma once

#include <span>

#include "wql/wmi_class.h"

namespace platform::wmi {

std::span<const ClassInfo> AbstractClasses();         // the CIM_ classes and others without objects of their own
std::span<const ClassInfo> AccountClasses();          // Win32_UserAccount, Win32_Group
std::span<const ClassInfo> ComputerSystemClasses();   // Win32_ComputerSystem
std::span<const ClassInfo> DiskDriveClasses();        // Win32_DiskDrive
std::span<const ClassInfo> FileSystemClasses();       // Win32_LogicalDisk, Win32_Volume
std::span<const ClassInfo> FirmwareClasses();         // Win32_ComputerSystemProduct, Win32_BIOS
std::span<const ClassInfo> NetworkAdapterClasses();   // Win32_NetworkAdapter, Win32_NetworkAdapterConfiguration
std::span<const ClassInfo> OperatingSystemClasses();  // Win32_OperatingSystem
std::span<const ClassInfo> PhysicalMemoryClasses();   // Win32_PhysicalMemory
std::span<const ClassInfo> ProcessClasses();          // Win32_Process
std::span<const ClassInfo> ProcessorClasses();        // Win32_Processor
std::span<const ClassInfo> ServiceClasses();          // Win32_Service
std::span<const ClassInfo> TimeClasses();             // Win32_TimeZone, Win32_LocalTime, Win32_UTCTime

// Win32_PerfFormattedData_ and Win32_PerfRawData_ of each
std::span<const ClassInfo> PerfDiskClasses();       // PerfDisk_LogicalDisk, PerfDisk_PhysicalDisk
std::span<const ClassInfo> PerfMemoryClasses();     // PerfOS_Memory
std::span<const ClassInfo> PerfNetworkClasses();    // Tcpip_NetworkInterface
std::span<const ClassInfo> PerfProcessClasses();    // PerfProc_Process
std::span<const ClassInfo> PerfProcessorClasses();  // PerfOS_Processor
std::span<const ClassInfo> PerfSystemClasses();     // PerfOS_System

}  // namespace platform::wmi
