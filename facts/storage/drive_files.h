// What the folder of a drive, such as /sys/block/sda, tells of it. Facts that a drive does not tell are empty.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// Empty for what does not name a vendor: on some buses it is only a number, and for an ATA disk behind SCSI "ATA".
std::string VendorOfDrive(const std::string& folder);

std::string ModelOfDrive(const std::string& folder);
std::string FirmwareOfDrive(const std::string& folder);

/// The serial number, from its file or else from the SCSI page for it, after the page's header.
std::string SerialOfDrive(const std::string& folder);

/// Host, channel, target and unit of a SCSI device, "0:0:1:0" at the end of its path; absent for any other path.
std::optional<std::array<std::uint32_t, 4>> ScsiAddressIn(std::string_view place);

/// Whether the drive's driver still uses it. Drivers that do not tell a state count as working.
bool IsDriveWorking(const std::string& folder);

/// The text of udev about a block device ("8:1"), for UdevFact. Empty without udev.
std::string ReadUdevData(const std::string& device, const std::string& root = {});

}  // namespace kv::facts
