#include "platform/linux/systemd/units.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "platform/linux/systemd/bus_message.h"

namespace platform::systemd {

namespace {

constexpr std::string_view templateSuffix = "@.service";

int ReadUnits(sd_bus_message* message, std::vector<ServiceUnit>& units) {
    return ReadArray(message, "(ssssssouso)", [&] {
        std::array<const char*, 9> text{};
        auto& [id, description, load, active, sub, followed, path, jobType, jobPath] = text;
        std::uint32_t job = 0;
        const int result = sd_bus_message_read(message, "(ssssssouso)", &id, &description, &load, &active, &sub,
                                               &followed, &path, &job, &jobType, &jobPath);
        if (result > 0)
            units.push_back({.id = id,
                             .description = description,
                             .loadState = load,
                             .activeState = active,
                             .subState = sub,
                             .fileState = "",
                             .pendingJob = jobType});
        return result;
    });
}

std::string_view FileNameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }  // npos + 1 is 0

/// A link to a template is an instance of it, and one to /dev/null a mask.
bool IsAlias(const UnitFile& file) {
    const std::string_view target = FileNameOf(file.target);
    return file.state == "alias" ||
           (target.ends_with(serviceSuffix) && !target.ends_with(templateSuffix) && target != file.id);
}

/// The first command of an "a(sasbttttuii)", whose structures begin with the program and its arguments.
int ReadFirstCommand(sd_bus_message* message, std::string& line) {
    if (sd_bus_message_enter_container(message, 'a', "(sasbttttuii)") <= 0) return -EBADMSG;
    const int entered = sd_bus_message_enter_container(message, 'r', "sasbttttuii");
    if (entered == 0) return 0;
    const char* program = nullptr;
    if (entered < 0 || sd_bus_message_read_basic(message, 's', &program) <= 0) return -EBADMSG;
    line = program;
    if (sd_bus_message_enter_container(message, 'a', "s") <= 0) return -EBADMSG;
    const char* argument = nullptr;
    bool isFirst = true;  // it stands for the program
    for (; sd_bus_message_read_basic(message, 's', &argument) > 0; isFirst = false) {
        if (!isFirst) line.append(" ").append(argument);
    }
    return 1;
}

}  // namespace

std::vector<ServiceUnit> WithUnitFiles(std::vector<ServiceUnit> loaded, const std::vector<UnitFile>& files) {
    std::map<std::string_view, const UnitFile*> fileOf;
    for (const UnitFile& file : files) fileOf.emplace(file.id, &file);
    std::erase_if(loaded, [](const ServiceUnit& unit) { return unit.loadState == "not-found"; });
    for (ServiceUnit& unit : loaded) {
        const auto file = fileOf.find(unit.id);
        if (file == fileOf.end()) continue;
        unit.fileState = file->second->state;
        fileOf.erase(file);
    }
    for (const auto& [id, file] : fileOf) {
        if (id.ends_with(templateSuffix) || IsAlias(*file)) continue;
        loaded.push_back({.id = file->id,
                          .description = "",
                          .loadState = "",
                          .activeState = "inactive",
                          .subState = "dead",
                          .fileState = file->state});
    }
    return loaded;
}

bool IsAbsent(int result) {
    return result == -ENOENT || result == -ECONNREFUSED     // no bus
           || result == -EHOSTUNREACH || result == -ENXIO;  // no manager on it
}

bool IsLost(int result) {
    return result == -ETIMEDOUT || result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE ||
           result == -EHOSTUNREACH || result == -ENXIO;
}

int ListByNames(sd_bus* bus, const std::vector<std::string>& names, std::vector<ServiceUnit>& units) {
    Message reply;
    const int result = CallManager(bus, "ListUnitsByNames", {&names}, reply);
    return result < 0 ? result : ReadUnits(reply.get(), units);
}

int UnitManager::ListLoaded(const std::vector<std::string>& patterns, std::vector<ServiceUnit>& units) {
    const std::vector<std::string> anyState;
    Message reply;
    const int result = CallManager(bus_.get(), "ListUnitsByPatterns", {&anyState, &patterns}, reply);
    return result < 0 ? result : ReadUnits(reply.get(), units);
}

int UnitManager::ListFiles(const std::vector<std::string>& patterns, std::vector<UnitFile>& files) {
    const std::vector<std::string> anyState;
    Message reply;
    const int result = CallManager(bus_.get(), "ListUnitFilesByPatterns", {&anyState, &patterns}, reply);
    if (result < 0) return result;
    return ReadArray(reply.get(), "(ss)", [&] {
        const char* path = "";
        const char* state = "";
        const int read = sd_bus_message_read(reply.get(), "(ss)", &path, &state);
        if (read <= 0) return read;
        std::error_code isNoLink;
        const std::string target = std::filesystem::read_symlink(path, isNoLink).string();
        files.push_back({.id = std::string(FileNameOf(path)), .state = state, .target = target});
        return read;
    });
}

int UnitManager::Describe(std::vector<ServiceUnit>& units) {
    std::vector<std::string> ids;
    for (const ServiceUnit& unit : units) {
        if (unit.loadState.empty()) ids.push_back(unit.id);
    }
    if (ids.empty()) return 0;
    std::vector<ServiceUnit> described;
    const int result = ListByNames(bus_.get(), ids, described);
    std::map<std::string_view, std::string_view> descriptions;
    for (const ServiceUnit& unit : described) descriptions.emplace(unit.id, unit.description);
    for (ServiceUnit& unit : units) {
        if (const auto found = descriptions.find(unit.id); found != descriptions.end())
            unit.description = found->second;
    }
    return result;
}

int UnitManager::MainProcess(const ServiceUnit& unit, std::uint32_t& processId) {
    return GetPlain(bus_.get(), unit.id, serviceInterface, "MainPID", 'u', processId);
}

int UnitManager::LastStart(const ServiceUnit& unit, ServiceStart& start) {
    std::string type;
    std::uint64_t triedAt = 0;
    int conditionsMet = 0;
    int result = GetText(bus_.get(), unit.id, serviceInterface, "Type", type);
    if (result >= 0) result = GetPlain(bus_.get(), unit.id, unitInterface, "ConditionTimestamp", 't', triedAt);
    if (result >= 0) result = GetPlain(bus_.get(), unit.id, unitInterface, "ConditionResult", 'b', conditionsMet);
    start = {.isOneShot = type == "oneshot", .wasTried = triedAt != 0, .conditionsMet = conditionsMet != 0};
    return result;
}

int UnitManager::FileState(const ServiceUnit& unit, std::string& state) {
    return GetText(bus_.get(), unit.id, unitInterface, "UnitFileState", state);
}

int UnitManager::FilePath(const ServiceUnit& unit, std::string& path) {
    return GetText(bus_.get(), unit.id, unitInterface, "FragmentPath", path);
}

int UnitManager::User(const ServiceUnit& unit, std::string& user) {
    return GetText(bus_.get(), unit.id, serviceInterface, "User", user);
}

int UnitManager::StartCommand(const ServiceUnit& unit, std::string& command) {
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_get_property(bus_.get(), managerName, UnitPathOf(unit.id).get(), serviceInterface,
                                           "ExecStart", nullptr, &answer, "a(sasbttttuii)");
    const Message reply(answer);
    return result < 0 ? result : ReadFirstCommand(answer, command);
}

}  // namespace platform::systemd
