// What the distribution has set down about itself: os-release(5), machine-info(5), the system's locale, and whether
// people sit in front of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/utsname.h>

namespace kv::facts {

/// The value of an assignment in a file of shell assignments, without quotes and escapes; absent when there is no such
/// assignment, or its value is empty.
std::optional<std::string> AssignedValue(std::string_view text, std::string_view key);

/// The text of os-release; empty when there is no such file.
std::string ReadOsRelease();

/// The distribution's name with its version, from the text of os-release; else the kernel's.
std::string SystemNameOf(std::string_view osRelease, const utsname& kernel);

/// The name that an administrator has given to the computer for people to read.
std::optional<std::string> ReadPrettyHostName();

/// The name of the locale that the system is set to, such as "en_US.UTF-8"; "C" when it is not set.
std::string ReadLocaleName();

/// Windows' number for the language and country of a locale, 127 for "C"; absent when the locale is not listed.
std::optional<std::uint16_t> LanguageNumberOf(std::string_view localeName);

/// Windows' number for the code set of a locale; absent for those of East Asia.
std::optional<std::uint32_t> CodePageOf(std::string_view localeName);

/// The telephone code of a locale's country; absent when the locale is not installed.
std::optional<std::string> ReadCountryCode(const std::string& localeName);

/// Whether a display manager is set up for people to log in at; on a server it is not.
bool IsWorkstation();

}  // namespace kv::facts
