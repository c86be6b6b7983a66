#include "platform/linux/systemd/unit_name.h"

#include <algorithm>

namespace platform::systemd {

namespace {

constexpr std::size_t longestUnitName = 255;  // the manager's bound
constexpr char caseBit = 'a' - 'A';

bool IsUpper(char character) { return character >= 'A' && character <= 'Z'; }
bool IsLower(char character) { return character >= 'a' && character <= 'z'; }
bool IsLetterOrDigit(char character) {
    return IsUpper(character) || IsLower(character) || (character >= '0' && character <= '9');
}

bool MayStandInUnitName(char character) {
    return IsLetterOrDigit(character) || std::string_view(":-_.\\@").find(character) != std::string_view::npos;
}

bool HasServiceSuffix(std::string_view name) {
    if (name.size() < serviceSuffix.size()) return false;
    const std::string_view end = name.substr(name.size() - serviceSuffix.size());
    return std::equal(end.begin(), end.end(), serviceSuffix.begin(),
                      [](char own, char small) { return (IsUpper(own) ? own | caseBit : own) == small; });
}

/// Empty for a name without anything between letters or digits, or with characters beyond ASCII: what is left of it
/// could be the name of another service.
std::string Hyphenated(std::string_view name) {
    if (std::any_of(name.begin(), name.end(), [](char character) { return (character & 0x80) != 0; })) return {};
    std::string unit;
    for (const char character : name) {
        if (IsLetterOrDigit(character)) {
            unit += IsUpper(character) ? static_cast<char>(character | caseBit) : character;
        } else if (!unit.empty() && unit.back() != '-') {
            unit += '-';
        }
    }
    if (unit.ends_with('-')) unit.pop_back();
    return unit.find('-') == std::string::npos ? std::string() : unit;
}

}  // namespace

std::string UnitNameOf(std::string_view serviceName) {
    if (HasServiceSuffix(serviceName)) serviceName.remove_suffix(serviceSuffix.size());
    if (std::none_of(serviceName.begin(), serviceName.end(), IsLetterOrDigit)) return {};
    const bool isPlain = std::all_of(serviceName.begin(), serviceName.end(), MayStandInUnitName);
    std::string unit = isPlain ? std::string(serviceName) : Hyphenated(serviceName);
    if (unit.empty() || unit.starts_with('@') || unit.ends_with('@')) return {};  // a template is not a unit yet
    unit += serviceSuffix;
    return unit.size() <= longestUnitName ? unit : std::string();
}

std::string PatternOfName(std::string_view name) {
    std::string pattern;
    for (const char character : name) {
        if (IsUpper(character) || IsLower(character)) {
            pattern += {'[', character, static_cast<char>(character ^ caseBit), ']'};
        } else if (character == '*' || character == '?' || character == '[') {
            pattern += {'[', character, ']'};
        } else {
            pattern += character;
        }
    }
    return pattern.append(serviceSuffix);
}

}  // namespace platform::systemd
