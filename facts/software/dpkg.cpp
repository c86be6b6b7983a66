#include "facts/software/dpkg.h"

#include <algorithm>
#include <strings.h>
#include <sys/stat.h>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

bool EqualNames(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool IsWanted(std::string_view name, const PackageNames* names) {
    return names == nullptr ||
           std::any_of(names->begin(), names->end(), [&](const std::string& one) { return EqualNames(name, one); });
}

/// Takes the text up to the next empty line off a text; false when the text is used up.
bool TakeParagraph(std::string_view& text, std::string_view& paragraph) {
    if (text.empty()) return false;
    const std::size_t end = text.find("\n\n");
    paragraph = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);
    return true;
}

/// The fields of a paragraph that are used. Of one with several lines, only the first.
struct Fields {
    std::string_view name, status, version, architecture, description, origin, maintainer, homepage, bugs;
};

Fields FieldsOf(std::string_view paragraph) {
    constexpr struct {
        std::string_view name;
        std::string_view Fields::*field;
    } known[] = {
        {"Package", &Fields::name},
        {"Status", &Fields::status},
        {"Version", &Fields::version},
        {"Architecture", &Fields::architecture},
        {"Description", &Fields::description},
        {"Origin", &Fields::origin},
        {"Maintainer", &Fields::maintainer},
        {"Homepage", &Fields::homepage},
        {"Bugs", &Fields::bugs},
    };
    Fields fields;
    std::string_view line;
    while (TakeLine(paragraph, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || line.front() == ' ' || line.front() == '\t') continue;
        for (const auto& [name, field] : known) {
            if (EqualNames(line.substr(0, colon), name)) fields.*field = Trimmed(line.substr(colon + 1));
        }
    }
    return fields;
}

enum class Presence { absent, incomplete, complete };

/// By the third word of a status, such as "install ok installed".
Presence PresenceOf(std::string_view status) {
    TakeField(status);
    TakeField(status);
    const std::string_view state = TakeField(status);
    if (state == "installed" || state.starts_with("triggers-")) return Presence::complete;
    return state.starts_with("half-") || state == "unpacked" ? Presence::incomplete : Presence::absent;
}

/// "A Team <team@example.org>" without the address.
std::string_view NameOfMaintainer(std::string_view maintainer) {
    const std::string_view name = Trimmed(maintainer.substr(0, maintainer.find('<')));
    return name.empty() ? maintainer : name;
}

}  // namespace

std::vector<Package> ParseDpkgStatus(std::string_view text, const PackageNames* names) {
    std::vector<Package> packages;
    std::string_view paragraph;
    while (TakeParagraph(text, paragraph)) {
        const Fields fields = FieldsOf(paragraph);
        const Presence presence = PresenceOf(fields.status);
        if (fields.name.empty() || presence == Presence::absent || !IsWanted(fields.name, names)) continue;
        Package& package = packages.emplace_back();
        package.name = fields.name;
        package.architecture = fields.architecture;
        package.version = fields.version;
        package.summary = fields.description;
        package.vendor = fields.origin.empty() ? NameOfMaintainer(fields.maintainer) : fields.origin;
        package.homepage = fields.homepage;
        package.bugReports = fields.bugs;
        package.isComplete = presence == Presence::complete;
    }
    return packages;
}

std::optional<std::int64_t> ReadDpkgInstallTime(const Package& package, const std::string& folder) {
    struct stat facts {};
    const std::string path = folder + "/" + package.name;
    // One that may be installed for several architectures has them in its files' names.
    for (const std::string& list : {path + ":" + package.architecture + ".list", path + ".list"}) {
        if (stat(list.c_str(), &facts) == 0) return facts.st_mtim.tv_sec;
    }
    return std::nullopt;
}

}  // namespace kv::facts
