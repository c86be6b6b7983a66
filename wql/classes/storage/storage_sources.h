// Gathers of storage classes from the files below a root: "" for this computer's own, or a folder with copies of such
// files (/sys, /proc, /etc, /dev, /run/udev).
#pragma once

#include <string>

#include "wql/wmi_class.h"

namespace kv::wql {

WmiStatus GatherCdDrives(const Gathering& gathering, const std::string& root);
WmiStatus GatherDiskDrives(const Gathering& gathering, const std::string& root);
WmiStatus GatherDiskPartitions(const Gathering& gathering, const std::string& root);
WmiStatus GatherDrivesToPartitions(const Gathering& gathering, const std::string& root);
WmiStatus GatherLogicalDisks(const Gathering& gathering, const std::string& root);  // also Win32_Volume
WmiStatus GatherLogicalDisksToPartitions(const Gathering& gathering, const std::string& root);
WmiStatus GatherPageFiles(const Gathering& gathering, const std::string& root);
WmiStatus GatherPageFileSettings(const Gathering& gathering, const std::string& root);

}  // namespace kv::wql
