#include "platform/linux/systemd/unit_search.h"

#include <algorithm>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/linux.h"
#include "platform/utf.h"

namespace platform::systemd {

namespace {

/// The end of a program's name elsewhere.
constexpr std::string_view foreignSuffix = ".exe";

/// Units, loaded ones first, and unit files whose names differ from a unit's at most in the case of letters.
int ListInAnyCase(UnitManager& manager, std::string_view unit, std::vector<std::string>& names) {
    unit.remove_suffix(serviceSuffix.size());
    const std::vector<std::string> patterns{PatternOfName(unit)};
    std::vector<ServiceUnit> loaded;
    std::vector<UnitFile> files;
    int result = manager.ListLoaded(patterns, loaded);
    if (result >= 0) result = manager.ListFiles(patterns, files);
    for (const ServiceUnit& service : loaded) names.push_back(service.id);
    for (const UnitFile& file : files) names.push_back(file.id);
    return result;
}

bool IsProgram(const std::string& path) {
    struct stat facts {};
    return path.starts_with('/') && stat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

/// Programs have no suffix here.
std::string WithoutForeignSuffix(std::string path) {
    const std::size_t length = foreignSuffix.size();
    const bool has =
        path.size() > length && strncasecmp(path.data() + path.size() - length, foreignSuffix.data(), length) == 0;
    if (has) path.resize(path.size() - length);
    return path;
}

/// The manager takes no program with such a character in its path, however it is quoted.
bool IsRefusedInProgram(char character) {
    return static_cast<unsigned char>(character) < ' ' ||
           std::string_view("'\"\\\x7f").find(character) != std::string_view::npos;
}

Error ReadProgram(std::u16string_view quoted, std::string& program) {
    if (quoted.size() < 2 || quoted.front() != u'"' || quoted.find(u'"', 1) != quoted.size() - 1) {
        return error::invalidParameter;
    }
    program = WithoutForeignSuffix(NativePathOf(quoted.substr(1, quoted.size() - 2)));
    if (std::any_of(program.begin(), program.end(), IsRefusedInProgram)) return error::invalidName;
    return IsProgram(program) ? error::success : error::fileNotFound;
}

/// A dependency need not be there yet.
Error NameDependency(UnitManager& manager, std::u16string_view serviceName, std::string& unit) {
    UnitCondition condition;
    const Error failure = FindUnit(manager, serviceName, condition);
    if (failure == error::invalidName) return error::invalidParameter;
    if (failure != error::success && failure != error::serviceDoesNotExist) return failure;
    unit = condition.id;
    return error::success;
}

}  // namespace

Error FindUnit(UnitManager& manager, std::u16string_view serviceName, UnitCondition& condition) {
    const std::string unit = UnitNameOf(Utf8FromWide(serviceName));
    if (unit.empty()) return error::invalidName;
    int result = ReadCondition(manager.bus(), unit, condition);
    if (result < 0 || Exists(condition)) return ErrorOfManager(result);
    std::vector<std::string> others;
    result = ListInAnyCase(manager, unit, others);
    UnitCondition other;
    for (auto name = others.begin(); name != others.end() && result >= 0; ++name) {
        result = ReadCondition(manager.bus(), *name, other);
        if (result < 0 || !Exists(other)) continue;
        condition = other;
        return error::success;
    }
    return result < 0 ? ErrorOfManager(result) : error::serviceDoesNotExist;
}

Error DescribeService(UnitManager& manager, const ServiceDefinition& definition, UnitDescription& description) {
    description.description = Utf8FromWide(definition.displayName.empty() ? definition.name : definition.displayName);
    if (const Error failure = ReadProgram(definition.binaryPath, description.program); failure != 0) return failure;
    for (const std::u16string& name : definition.dependencies) {
        std::string& unit = description.dependencies.emplace_back();
        if (const Error failure = NameDependency(manager, name, unit); failure != 0) return failure;
    }
    // So that the service finds the settings of the process that makes it.
    if (StateDirectory() != usualStateDirectory) {
        description.environment.emplace_back(stateDirectoryVariable, StateDirectory());
    }
    const bool isText = IsValidUtf8(description.program) && IsValidUtf8(StateDirectory());
    return isText ? error::success : error::invalidName;
}

}  // namespace platform::systemd
