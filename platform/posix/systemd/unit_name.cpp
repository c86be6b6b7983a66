#include "platform/posix/systemd/unit_name.h"

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

std::string Hyphenated(std::string_view name) {
    std::string unit;
    for (const char character : name) {
        if (IsLetterOrDigit(character)) {
            unit += IsUpper(character) ? static_cast<char>(character | caseBit) : character;
        } else if (!unit.empty() && unit.back() != '-') {
            unit += '-';
        }
    }
    if (unit.ends_with('-')) unit.pop_back();
    return unit;
}

}  // namespace

std::string UnitNameOf(std::string_view serviceName) {
    if (serviceName.ends_with(serviceSuffix)) serviceName.remove_suffix(serviceSuffix.size());
    if (std::none_of(serviceName.begin(), serviceName.end(), IsLetterOrDigit)) return {};
    const bool isPlain = std::all_of(serviceName.begin(), serviceName.end(), MayStandInUnitName);
    std::string unit = isPlain ? std::string(serviceName) : Hyphenated(serviceName);
    if (unit.starts_with('@') || unit.ends_with('@')) return {};  // a template is no unit yet
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
