#include "platform/posix/facts/systemd_units.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>

namespace platform::wmi {

namespace {

constexpr const char* managerName = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* unitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* serviceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* unitPath = "/org/freedesktop/systemd1/unit";
constexpr std::string_view templateSuffix = "@.service";

struct DropMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, DropMessage>;

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, Free>;

int AppendTexts(sd_bus_message* message, const std::vector<std::string>& texts) {
    int result = sd_bus_message_open_container(message, 'a', "s");
    for (auto text = texts.begin(); text != texts.end() && result >= 0; ++text) {
        result = sd_bus_message_append_basic(message, 's', text->c_str());
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

/// Calls a method of the manager with lists of texts. Starts no manager where there is none.
int CallManager(sd_bus* bus, const char* method, std::initializer_list<const std::vector<std::string>*> arguments,
                Message& reply) {
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(bus, &made, managerName, managerPath, managerInterface, method);
    if (result < 0) return result;
    const Message call(made);
    sd_bus_message_set_auto_start(made, 0);
    for (const auto* list = arguments.begin(); list != arguments.end() && result >= 0; ++list) {
        result = AppendTexts(made, **list);
    }
    if (result < 0) return result;
    sd_bus_message* answer = nullptr;
    result = sd_bus_call(bus, made, 0, nullptr, &answer);
    reply.reset(answer);
    return result;
}

/// Reads an array of structures: read takes the next one, and gives 0 at their end.
template <class Read>
int ReadArray(sd_bus_message* message, const char* element, Read read) {
    if (sd_bus_message_enter_container(message, 'a', element) <= 0) return -EBADMSG;
    int result = 1;
    while (result > 0) result = read();
    return result < 0 ? -EBADMSG : sd_bus_message_exit_container(message);
}

int ReadUnits(sd_bus_message* message, std::vector<ServiceUnit>& units) {
    return ReadArray(message, "(ssssssouso)", [&] {
        std::array<const char*, 9> text{};
        auto& [id, description, load, active, sub, followed, path, jobType, jobPath] = text;
        std::uint32_t job = 0;
        const int result = sd_bus_message_read(message, "(ssssssouso)", &id, &description, &load, &active, &sub,
                                               &followed, &path, &job, &jobType, &jobPath);
        if (result > 0) units.push_back({id, description, load, active, sub, ""});
        return result;
    });
}

CText PathOf(const ServiceUnit& unit) {
    char* path = nullptr;
    sd_bus_path_encode(unitPath, unit.id.c_str(), &path);
    return CText(path);
}

std::string_view FileNameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }  // npos + 1 is 0

/// A link to a template is an instance of it, and one to /dev/null a mask.
bool IsAlias(const UnitFile& file) {
    const std::string_view target = FileNameOf(file.target);
    return file.state == "alias" ||
           (target.ends_with(serviceSuffix) && !target.ends_with(templateSuffix) && target != file.id);
}

/// A number or truth value of the type's size.
template <class Value>
int GetPlain(sd_bus* bus, const ServiceUnit& unit, const char* interface, const char* property, char type,
             Value& value) {
    const CText path = PathOf(unit);
    return sd_bus_get_property_trivial(bus, managerName, path.get(), interface, property, nullptr, type, &value);
}

int GetText(sd_bus* bus, const ServiceUnit& unit, const char* interface, const char* property, std::string& value) {
    char* text = nullptr;
    const int result =
        sd_bus_get_property_string(bus, managerName, PathOf(unit).get(), interface, property, nullptr, &text);
    const CText owned(text);
    if (result >= 0) value = text;
    return result;
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
        loaded.push_back({file->id, "", "", "inactive", "dead", file->state});
    }
    return loaded;
}

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

bool IsAbsent(int result) {
    return result == -ENOENT || result == -ECONNREFUSED     // no bus
           || result == -EHOSTUNREACH || result == -ENXIO;  // no manager on it
}

bool IsLost(int result) {
    return result == -ETIMEDOUT || result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE ||
           result == -EHOSTUNREACH || result == -ENXIO;
}

int ServiceManager::ListLoaded(const std::vector<std::string>& patterns, std::vector<ServiceUnit>& units) {
    const std::vector<std::string> anyState;
    Message reply;
    const int result = CallManager(bus_.get(), "ListUnitsByPatterns", {&anyState, &patterns}, reply);
    return result < 0 ? result : ReadUnits(reply.get(), units);
}

int ServiceManager::ListFiles(const std::vector<std::string>& patterns, std::vector<UnitFile>& files) {
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
        files.push_back({std::string(FileNameOf(path)), state, target});
        return read;
    });
}

int ServiceManager::Describe(std::vector<ServiceUnit>& units) {
    std::vector<std::string> ids;
    for (const ServiceUnit& unit : units) {
        if (unit.loadState.empty()) ids.push_back(unit.id);
    }
    if (ids.empty()) return 0;
    Message reply;
    int result = CallManager(bus_.get(), "ListUnitsByNames", {&ids}, reply);
    std::vector<ServiceUnit> described;
    if (result >= 0) result = ReadUnits(reply.get(), described);
    std::map<std::string_view, std::string_view> descriptions;
    for (const ServiceUnit& unit : described) descriptions.emplace(unit.id, unit.description);
    for (ServiceUnit& unit : units) {
        if (const auto found = descriptions.find(unit.id); found != descriptions.end())
            unit.description = found->second;
    }
    return result;
}

int ServiceManager::MainProcess(const ServiceUnit& unit, std::uint32_t& processId) {
    return GetPlain(bus_.get(), unit, serviceInterface, "MainPID", 'u', processId);
}

int ServiceManager::CanStop(const ServiceUnit& unit, bool& canStop) {
    int truth = 0;
    const int result = GetPlain(bus_.get(), unit, unitInterface, "CanStop", 'b', truth);
    canStop = truth != 0;
    return result;
}

int ServiceManager::LastStart(const ServiceUnit& unit, ServiceStart& start) {
    std::string type;
    std::uint64_t triedAt = 0;
    int conditionsMet = 0;
    int result = GetText(bus_.get(), unit, serviceInterface, "Type", type);
    if (result >= 0) result = GetPlain(bus_.get(), unit, unitInterface, "ConditionTimestamp", 't', triedAt);
    if (result >= 0) result = GetPlain(bus_.get(), unit, unitInterface, "ConditionResult", 'b', conditionsMet);
    start = {type == "oneshot", triedAt != 0, conditionsMet != 0};
    return result;
}

int ServiceManager::LastEnding(const ServiceUnit& unit, ServiceEnding& ending) {
    std::int32_t code = 0;
    std::int32_t status = 0;
    int result = GetPlain(bus_.get(), unit, serviceInterface, "ExecMainCode", 'i', code);
    if (result >= 0) result = GetPlain(bus_.get(), unit, serviceInterface, "ExecMainStatus", 'i', status);
    ending = {code == CLD_EXITED, static_cast<std::uint32_t>(status)};
    return result;
}

int ServiceManager::FileState(const ServiceUnit& unit, std::string& state) {
    return GetText(bus_.get(), unit, unitInterface, "UnitFileState", state);
}

int ServiceManager::User(const ServiceUnit& unit, std::string& user) {
    return GetText(bus_.get(), unit, serviceInterface, "User", user);
}

int ServiceManager::StartCommand(const ServiceUnit& unit, std::string& command) {
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_get_property(bus_.get(), managerName, PathOf(unit).get(), serviceInterface, "ExecStart",
                                           nullptr, &answer, "a(sasbttttuii)");
    const Message reply(answer);
    return result < 0 ? result : ReadFirstCommand(answer, command);
}

}  // namespace platform::wmi
