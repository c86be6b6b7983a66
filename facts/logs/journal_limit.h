// How much space systemd's journal may take, by journald.conf(5).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// The value of a key, such as SystemMaxUse, in the section [Journal] of a configuration file; the last one counts.
/// Empty when the file sets it back to the default, absent when it does not speak of it.
std::optional<std::string> JournalSetting(std::string_view text, std::string_view key);

/// A size: a number with one of the units K, M, G, T, P and E, or bytes. Absent if it is not one.
std::optional<std::uint64_t> JournalSizeOf(std::string_view text);

/// The bytes that the journal in a folder may take at most: SystemMaxUse, or RuntimeMaxUse for one in /run, of
/// journald.conf and its drop-ins below a root folder; else a tenth of the folder's file system, at most 4 GiB. Absent
/// when neither is known, or a configuration file cannot be read.
std::optional<std::uint64_t> JournalSpaceLimit(const std::string& folder, const std::string& root = "");

}  // namespace kv::facts
