// What the distribution says about itself: os-release(5), machine-info(5), the system's locale, and whether people sit
// in front of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/utsname.h>

namespace kv::facts {

/// The value of the first assignment to a key in a file of shell assignments, without quotes and escapes; absent when
/// there is no such assignment, or its value is empty.
std::optional<std::string> AssignedValue(std::string_view text, std::string_view key);

/// The text of os-release; empty when there is no such file.
std::string ReadOsRelease();

/// The distribution's name with its version, from the text of os-release; else the kernel's.
std::string SystemNameOf(std::string_view osRelease, const utsname& kernel);

/// The computer's name for people to read, if an administrator has given it one.
std::optional<std::string> ReadPrettyHostName();

/// The name of the system's locale, such as "en_US.UTF-8"; "C" when none is set.
std::string ReadLocaleName();

/// Windows' number for the language and country of a locale, 127 for "C"; absent when the locale is not listed.
std::optional<std::uint16_t> LanguageNumberOf(std::string_view localeName);

/// Windows' number for the code set of a locale: UTF-8, ISO 8859, or ASCII for "C". Absent for other code sets, and for
/// a name without one.
std::optional<std::uint32_t> CodePageOf(std::string_view localeName);

/// The telephone code of a locale's country; absent when the locale is not installed, or does not have one.
std::optional<std::string> ReadCountryCode(const std::string& localeName);

/// Whether a display manager, at which people log in, is set up. Servers do not have one.
bool IsWorkstation();

}  // namespace kv::facts
