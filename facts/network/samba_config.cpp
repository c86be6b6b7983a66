#include "facts/network/samba_config.h"

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
    std::map<std::string, std::size_t> places{{"global", 0}};  // of the sections; a text may open one more than once
    std::size_t current = 0;
    std::string line;
    while (TakeJoinedLine(text, line, "#;")) {
        if (line.empty()) continue;
        const std::size_t end = line.find(']');
        if (line.front() == '[' && end != std::string::npos) {
            const std::string name(Trimmed(std::string_view(line).substr(1, end - 1)));
            const auto [place, isNew] = places.try_emplace(PlainSambaName(name), sections.size());
            if (isNew) sections.push_back({name, {}});
            current = place->second;
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string_view value = Trimmed(std::string_view(line).substr(equals + 1));
        sections[current].settings[SettingName(line.substr(0, equals))] = value;
    }
    return sections;
}

std::string ValueIn(const SambaSettings& settings, const char* plainName) {
    const auto found = settings.find(plainName);
    return found != settings.end() ? found->second : "";
}

}  // namespace kv::facts
