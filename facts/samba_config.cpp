#include "facts/samba_config.h"

#include <algorithm>
#include <cctype>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// A setting's plain name: one for those that have two.
std::string SettingName(std::string_view name) {
    const std::string plain = PlainSambaName(name);
    if (plain == "directory") return "path";
    return plain == "printok" ? "printable" : plain;
}

/// The section of a name, which a file may open more than once.
SambaSection& SectionOf(std::vector<SambaSection>& sections, std::string_view name) {
    const auto found = std::ranges::find_if(
        sections, [&](const SambaSection& section) { return PlainSambaName(section.name) == PlainSambaName(name); });
    return found != sections.end() ? *found : sections.emplace_back(SambaSection{std::string(name), {}});
}

}  // namespace

std::string PlainSambaName(std::string_view name) {
    std::string plain;
    for (const char letter : name) {
        if (letter != ' ' && letter != '\t')
            plain += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return plain;
}

std::vector<SambaSection> ParseSambaSections(std::string_view text) {
    std::vector<SambaSection> sections{{"global", {}}};
    std::string current = "global";
    std::string line;
    while (TakeJoinedLine(text, line, "#;")) {
        if (line.empty()) continue;
        const std::size_t end = line.find(']');
        if (line.front() == '[' && end != std::string::npos) {
            current = Trimmed(line.substr(1, end - 1));
            SectionOf(sections, current);
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string_view value = Trimmed(std::string_view(line).substr(equals + 1));
        SectionOf(sections, current).settings[SettingName(line.substr(0, equals))] = value;
    }
    return sections;
}

std::string ValueIn(const SambaSettings& settings, const char* plainName) {
    const auto found = settings.find(plainName);
    return found != settings.end() ? found->second : "";
}

}  // namespace kv::facts
