#include "platform/posix/systemd/unit_name.h"

namespace platform::systemd {

std::string UnitNameOf(std::string_view serviceName) { return std::string(serviceName).append(serviceSuffix); }

std::string PatternOfName(std::string_view name) {
    std::string pattern;
    for (const char character : name) {
        const bool isUpper = character >= 'A' && character <= 'Z';
        const bool isLower = character >= 'a' && character <= 'z';
        constexpr char caseBit = 'a' - 'A';
        if (isUpper || isLower) {
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
