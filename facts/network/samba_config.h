// The text of smb.conf(5): sections with settings.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// Settings by their plain names.
using SambaSettings = std::map<std::string, std::string>;

struct SambaSection {
    std::string name;
    SambaSettings settings;
};

/// A name of a section or a setting as Samba compares it: in small letters and without blanks.
std::string PlainSambaName(std::string_view name);

/// The sections of a text, those of one name as one. The first is [global], where settings before any section belong,
/// too. Any thread may parse.
std::vector<SambaSection> ParseSambaSections(std::string_view text);

/// The value of a setting; empty if it is not set.
std::string ValueIn(const SambaSettings& settings, const char* plainName);

}  // namespace kv::facts
