// The abstract classes: their objects are those of their subclasses. Each table extends that of the superclass.
#include "wql/class_tree.h"
#include "wql/classes/extended_table.h"

namespace kv::wql {

namespace {

using enum CimType;

// clang-format off
constexpr auto managedSystemElement = std::to_array<PropertyInfo>({
    {u"Caption", string},
    {u"Description", string},
    {u"InstallDate", datetime},
    {u"Name", string},
    {u"Status", string},
});

constexpr auto logicalDevice = Extend(managedSystemElement, {
    {u"Availability", uint16},
    {u"ConfigManagerErrorCode", uint32},
    {u"ConfigManagerUserConfig", boolean},
    {u"CreationClassName", string},
    {u"DeviceID", string},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"LastErrorCode", uint32},
    {u"PNPDeviceID", string},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string},
    {u"SystemName", string},
});

constexpr auto storageExtent = Extend(logicalDevice, {
    {u"Access", uint16},
    {u"BlockSize", uint64},
    {u"ErrorMethodology", string},
    {u"NumberOfBlocks", uint64},
    {u"Purpose", string},
});

constexpr auto logicalDisk = Extend(storageExtent, {
    {u"FreeSpace", uint64},
    {u"Size", uint64},
});

constexpr auto diskPartition = Extend(storageExtent, {
    {u"Bootable", boolean},
    {u"PrimaryPartition", boolean},
});

constexpr auto mediaAccessDevice = Extend(logicalDevice, {
    {u"Capabilities", ArrayOf(uint16)},
    {u"CapabilityDescriptions", ArrayOf(string)},
    {u"CompressionMethod", string},
    {u"DefaultBlockSize", uint64},
    {u"ErrorMethodology", string},
    {u"MaxBlockSize", uint64},
    {u"MaxMediaSize", uint64},
    {u"MinBlockSize", uint64},
    {u"NeedsCleaning", boolean},
    {u"NumberOfMediaSupported", uint32},
});

constexpr auto battery = Extend(logicalDevice, {
    {u"BatteryStatus", uint16},
    {u"Chemistry", uint16},
    {u"DesignCapacity", uint32},
    {u"DesignVoltage", uint64},
    {u"EstimatedChargeRemaining", uint16},
    {u"EstimatedRunTime", uint32},
    {u"ExpectedLife", uint32},
    {u"FullChargeCapacity", uint32},
    {u"MaxRechargeTime", uint32},
    {u"SmartBatteryVersion", string},
    {u"TimeOnBattery", uint32},
    {u"TimeToFullCharge", uint32},
});

constexpr auto controller = Extend(logicalDevice, {
    {u"MaxNumberControlled", uint32},
    {u"ProtocolSupported", uint16},
    {u"TimeOfLastReset", datetime},
});

constexpr auto videoController = Extend(controller, {
    {u"AcceleratorCapabilities", ArrayOf(uint16)},
    {u"CapabilityDescriptions", ArrayOf(string)},
    {u"CurrentBitsPerPixel", uint32},
    {u"CurrentHorizontalResolution", uint32},
    {u"CurrentNumberOfColors", uint64},
    {u"CurrentNumberOfColumns", uint32},
    {u"CurrentNumberOfRows", uint32},
    {u"CurrentRefreshRate", uint32},
    {u"CurrentScanMode", uint16},
    {u"CurrentVerticalResolution", uint32},
    {u"MaxMemorySupported", uint32},
    {u"MaxRefreshRate", uint32},
    {u"MinRefreshRate", uint32},
    {u"NumberOfVideoPages", uint32},
    {u"VideoMemoryType", uint16},
    {u"VideoProcessor", string},
});

constexpr auto personalVideoController = Extend(videoController, {
    {u"NumberOfColorPlanes", uint16},
    {u"VideoArchitecture", uint16},
    {u"VideoMode", uint16},
});

constexpr auto networkAdapter = Extend(logicalDevice, {
    {u"AutoSense", boolean},
    {u"MaxSpeed", uint64},
    {u"NetworkAddresses", ArrayOf(string)},
    {u"PermanentAddress", string},
    {u"Speed", uint64},
});

constexpr auto processor = Extend(logicalDevice, {
    {u"AddressWidth", uint16},
    {u"CurrentClockSpeed", uint32},
    {u"DataWidth", uint16},
    {u"Family", uint16},
    {u"LoadPercentage", uint16},
    {u"MaxClockSpeed", uint32},
    {u"OtherFamilyDescription", string},
    {u"Role", string},
    {u"Stepping", string},
    {u"UniqueId", string},
    {u"UpgradeMethod", uint16},
});

constexpr auto job = Extend(managedSystemElement, {
    {u"ElapsedTime", datetime},
    {u"JobStatus", string},
    {u"Notify", string},
    {u"Owner", string},
    {u"Priority", uint32},
    {u"StartTime", datetime},
    {u"TimeSubmitted", datetime},
    {u"UntilTime", datetime},
});

constexpr auto logicalFile = Extend(managedSystemElement, {
    {u"AccessMask", uint32},
    {u"Archive", boolean},
    {u"Compressed", boolean},
    {u"CompressionMethod", string},
    {u"CreationClassName", string},
    {u"CreationDate", datetime},
    {u"CSCreationClassName", string},
    {u"CSName", string},
    {u"Drive", string},
    {u"EightDotThreeFileName", string},
    {u"Encrypted", boolean},
    {u"EncryptionMethod", string},
    {u"Extension", string},
    {u"FileName", string},
    {u"FileSize", uint64},
    {u"FileType", string},
    {u"FSCreationClassName", string},
    {u"FSName", string},
    {u"Hidden", boolean},
    {u"InUseCount", uint64},
    {u"LastAccessed", datetime},
    {u"LastModified", datetime},
    {u"Path", string},
    {u"Readable", boolean},
    {u"System", boolean},
    {u"Writeable", boolean},
});

constexpr auto session = Extend(managedSystemElement, {
    {u"StartTime", datetime},
});

constexpr auto system = Extend(managedSystemElement, {
    {u"CreationClassName", string},
    {u"NameFormat", string},
    {u"PrimaryOwnerContact", string},
    {u"PrimaryOwnerName", string},
    {u"Roles", ArrayOf(string)},
});

constexpr auto unitaryComputerSystem = Extend(system, {
    {u"InitialLoadInfo", ArrayOf(string)},
    {u"LastLoadInfo", string},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"PowerState", uint16},
    {u"ResetCapability", uint16},
});

constexpr auto operatingSystem = Extend(managedSystemElement, {
    {u"CreationClassName", string},
    {u"CSCreationClassName", string},
    {u"CSName", string},
    {u"CurrentTimeZone", sint16},
    {u"Distributed", boolean},
    {u"FreePhysicalMemory", uint64},
    {u"FreeSpaceInPagingFiles", uint64},
    {u"FreeVirtualMemory", uint64},
    {u"LastBootUpTime", datetime},
    {u"LocalDateTime", datetime},
    {u"MaxNumberOfProcesses", uint32},
    {u"MaxProcessMemorySize", uint64},
    {u"NumberOfLicensedUsers", uint32},
    {u"NumberOfProcesses", uint32},
    {u"NumberOfUsers", uint32},
    {u"OSType", uint16},
    {u"OtherTypeDescription", string},
    {u"SizeStoredInPagingFiles", uint64},
    {u"TotalSwapSpaceSize", uint64},
    {u"TotalVirtualMemorySize", uint64},
    {u"TotalVisibleMemorySize", uint64},
    {u"Version", string},
});

constexpr auto process = Extend(managedSystemElement, {
    {u"CreationClassName", string},
    {u"CreationDate", datetime},
    {u"CSCreationClassName", string},
    {u"CSName", string},
    {u"ExecutionState", uint16},
    {u"Handle", string},
    {u"KernelModeTime", uint64},
    {u"OSCreationClassName", string},
    {u"OSName", string},
    {u"Priority", uint32},
    {u"TerminationDate", datetime},
    {u"UserModeTime", uint64},
    {u"WorkingSetSize", uint64},
});

constexpr auto service = Extend(managedSystemElement, {
    {u"CreationClassName", string},
    {u"Started", boolean},
    {u"StartMode", string},
    {u"SystemCreationClassName", string},
    {u"SystemName", string},
});

constexpr auto baseService = Extend(service, {
    {u"AcceptPause", boolean},
    {u"AcceptStop", boolean},
    {u"DesktopInteract", boolean},
    {u"DisplayName", string},
    {u"ErrorControl", string},
    {u"ExitCode", uint32},
    {u"PathName", string},
    {u"ServiceSpecificExitCode", uint32},
    {u"ServiceType", string},
    {u"StartName", string},
    {u"State", string},
    {u"TagId", uint32},
});

constexpr auto account = Extend(managedSystemElement, {
    {u"Domain", string},
    {u"LocalAccount", boolean},
    {u"SID", string},
    {u"SIDType", uint8},
});

constexpr auto softwareElement = Extend(managedSystemElement, {
    {u"BuildNumber", string},
    {u"CodeSet", string},
    {u"IdentificationCode", string},
    {u"LanguageEdition", string},
    {u"Manufacturer", string},
    {u"OtherTargetOS", string},
    {u"SerialNumber", string},
    {u"SoftwareElementID", string},
    {u"SoftwareElementState", uint16},
    {u"TargetOperatingSystem", uint16},
    {u"Version", string},
});

constexpr auto biosElement = Extend(softwareElement, {
    {u"PrimaryBIOS", boolean},
});

constexpr auto physicalElement = Extend(managedSystemElement, {
    {u"CreationClassName", string},
    {u"Manufacturer", string},
    {u"Model", string},
    {u"OtherIdentifyingInfo", string},
    {u"PartNumber", string},
    {u"PoweredOn", boolean},
    {u"SerialNumber", string},
    {u"SKU", string},
    {u"Tag", string},
    {u"Version", string},
});

constexpr auto physicalComponent = Extend(physicalElement, {
    {u"HotSwappable", boolean},
    {u"Removable", boolean},
    {u"Replaceable", boolean},
});

constexpr auto chip = Extend(physicalComponent, {
    {u"FormFactor", uint16},
});

constexpr auto physicalMemory = Extend(chip, {
    {u"BankLabel", string},
    {u"Capacity", uint64},
    {u"DataWidth", uint16},
    {u"InterleavePosition", uint32},
    {u"MemoryType", uint16},
    {u"PositionInRow", uint32},
    {u"Speed", uint32},
    {u"TotalWidth", uint16},
});

constexpr auto physicalPackage = Extend(physicalElement, {
    {u"Depth", real32},
    {u"Height", real32},
    {u"HotSwappable", boolean},
    {u"Removable", boolean},
    {u"Replaceable", boolean},
    {u"Weight", real32},
    {u"Width", real32},
});

constexpr auto card = Extend(physicalPackage, {
    {u"HostingBoard", boolean},
    {u"RequirementsDescription", string},
    {u"RequiresDaughterBoard", boolean},
    {u"SlotLayout", string},
    {u"SpecialRequirements", boolean},
});

constexpr auto physicalFrame = Extend(physicalPackage, {
    {u"AudibleAlarm", boolean},
    {u"BreachDescription", string},
    {u"CableManagementStrategy", string},
    {u"LockPresent", boolean},
    {u"SecurityBreach", uint16},
    {u"ServiceDescriptions", ArrayOf(string)},
    {u"ServicePhilosophy", ArrayOf(uint16)},
    {u"VisibleAlarm", boolean},
});

constexpr auto chassis = Extend(physicalFrame, {
    {u"ChassisTypes", ArrayOf(uint16)},
    {u"CurrentRequiredOrProduced", sint16},
    {u"HeatGeneration", uint16},
    {u"NumberOfPowerCords", uint16},
    {u"TypeDescriptions", ArrayOf(string)},
});

constexpr auto dependency = std::to_array<PropertyInfo>({
    {u"Antecedent", reference},
    {u"Dependent", reference},
});

constexpr auto basedOn = Extend(dependency, {
    {u"EndingAddress", uint64},
    {u"StartingAddress", uint64},
});

constexpr auto product = std::to_array<PropertyInfo>({
    {u"Caption", string},
    {u"Description", string},
    {u"IdentifyingNumber", string},
    {u"Name", string},
    {u"SKUNumber", string},
    {u"Vendor", string},
    {u"Version", string},
});

constexpr auto setting = std::to_array<PropertyInfo>({
    {u"Caption", string},
    {u"Description", string},
    {u"SettingID", string},
});

constexpr auto currentTime = std::to_array<PropertyInfo>({
    {u"Day", uint32},
    {u"DayOfWeek", uint32},
    {u"Hour", uint32},
    {u"Milliseconds", uint32},
    {u"Minute", uint32},
    {u"Month", uint32},
    {u"Quarter", uint32},
    {u"Second", uint32},
    {u"WeekInMonth", uint32},
    {u"Year", uint32},
});

constexpr auto statisticalInformation = std::to_array<PropertyInfo>({
    {u"Caption", string},
    {u"Description", string},
    {u"Name", string},
});

constexpr auto perf = Extend(statisticalInformation, {
    {u"Frequency_Object", uint64},
    {u"Frequency_PerfTime", uint64},
    {u"Frequency_Sys100NS", uint64},
    {u"Timestamp_Object", uint64},
    {u"Timestamp_PerfTime", uint64},
    {u"Timestamp_Sys100NS", uint64},
});

// clang-format on

constexpr ClassInfo classes[] = {
    {u"CIM_ManagedSystemElement", u"", managedSystemElement},
    {u"CIM_LogicalElement", u"CIM_ManagedSystemElement", managedSystemElement},
    {u"CIM_LogicalDevice", u"CIM_LogicalElement", logicalDevice},
    {u"CIM_StorageExtent", u"CIM_LogicalDevice", storageExtent},
    {u"CIM_LogicalDisk", u"CIM_StorageExtent", logicalDisk},
    {u"CIM_StorageVolume", u"CIM_StorageExtent", storageExtent},
    {u"CIM_DiskPartition", u"CIM_StorageExtent", diskPartition},
    {u"CIM_MediaAccessDevice", u"CIM_LogicalDevice", mediaAccessDevice},
    {u"CIM_DiskDrive", u"CIM_MediaAccessDevice", mediaAccessDevice},
    {u"CIM_CDROMDrive", u"CIM_MediaAccessDevice", mediaAccessDevice},
    {u"CIM_NetworkAdapter", u"CIM_LogicalDevice", networkAdapter},
    {u"CIM_Processor", u"CIM_LogicalDevice", processor},
    {u"CIM_Battery", u"CIM_LogicalDevice", battery},
    {u"CIM_Controller", u"CIM_LogicalDevice", controller},
    {u"CIM_VideoController", u"CIM_Controller", videoController},
    {u"CIM_PCVideoController", u"CIM_VideoController", personalVideoController},
    {u"CIM_Job", u"CIM_LogicalElement", job},
    {u"CIM_LogicalFile", u"CIM_LogicalElement", logicalFile},
    {u"Win32_Session", u"CIM_LogicalElement", session},
    {u"CIM_System", u"CIM_LogicalElement", system},
    {u"CIM_ComputerSystem", u"CIM_System", system},
    {u"CIM_UnitaryComputerSystem", u"CIM_ComputerSystem", unitaryComputerSystem},
    {u"CIM_OperatingSystem", u"CIM_LogicalElement", operatingSystem},
    {u"CIM_Process", u"CIM_LogicalElement", process},
    {u"CIM_Service", u"CIM_LogicalElement", service},
    {u"Win32_BaseService", u"CIM_Service", baseService},
    {u"Win32_Account", u"CIM_LogicalElement", account},
    {u"CIM_SoftwareElement", u"CIM_LogicalElement", softwareElement},
    {u"CIM_BIOSElement", u"CIM_SoftwareElement", biosElement},
    {u"CIM_PhysicalElement", u"CIM_ManagedSystemElement", physicalElement},
    {u"CIM_PhysicalPackage", u"CIM_PhysicalElement", physicalPackage},
    {u"CIM_Card", u"CIM_PhysicalPackage", card},
    {u"CIM_PhysicalFrame", u"CIM_PhysicalPackage", physicalFrame},
    {u"CIM_Chassis", u"CIM_PhysicalFrame", chassis},
    {u"CIM_PhysicalComponent", u"CIM_PhysicalElement", physicalComponent},
    {u"CIM_Chip", u"CIM_PhysicalComponent", chip},
    {u"CIM_PhysicalMemory", u"CIM_Chip", physicalMemory},
    {u"CIM_Dependency", u"", dependency},
    {u"CIM_MediaPresent", u"CIM_Dependency", dependency},
    {u"CIM_BasedOn", u"CIM_Dependency", basedOn},
    {u"CIM_LogicalDiskBasedOnPartition", u"CIM_BasedOn", basedOn},
    {u"CIM_Product", u"", product},
    {u"CIM_Setting", u"", setting},
    {u"Win32_CurrentTime", u"", currentTime},
    {u"CIM_StatisticalInformation", u"", statisticalInformation},
    {u"Win32_Perf", u"CIM_StatisticalInformation", perf},
    {u"Win32_PerfRawData", u"Win32_Perf", perf},
    {u"Win32_PerfFormattedData", u"Win32_Perf", perf},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
