#include "platform/linux/systemd/bus_message.h"

#include "platform/owned_handle.h"

namespace platform::systemd {

namespace {

void FreeTexts(char** texts) {
    for (char** text = texts; *text != nullptr; ++text) std::free(*text);
    std::free(texts);
}

}  // namespace

CText UnitPathOf(const std::string& unit) {
    char* path = nullptr;
    sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
    return CText(path);
}

int MakeManagerCall(sd_bus* bus, const char* method, Message& call) {
    sd_bus_message* made = nullptr;
    const int result = sd_bus_message_new_method_call(bus, &made, managerName, managerPath, managerInterface, method);
    if (result < 0) return result;
    call.reset(made);
    return sd_bus_message_set_auto_start(made, 0);
}

int AppendTexts(sd_bus_message* message, const std::vector<std::string>& texts) {
    int result = sd_bus_message_open_container(message, 'a', "s");
    for (auto text = texts.begin(); text != texts.end() && result >= 0; ++text) {
        result = sd_bus_message_append_basic(message, 's', text->c_str());
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

int Send(sd_bus* bus, const Message& call, Message& answer, unsigned patience) {
    std::uint64_t microseconds = 0;
    sd_bus_get_method_call_timeout(bus, &microseconds);
    sd_bus_message* received = nullptr;
    const int result = sd_bus_call(bus, call.get(), microseconds * patience, nullptr, &received);
    answer.reset(received);
    return result;
}

int CallManager(sd_bus* bus, const char* method, std::initializer_list<const std::vector<std::string>*> arguments,
                Message& answer) {
    Message call;
    int result = MakeManagerCall(bus, method, call);
    for (const auto* list = arguments.begin(); list != arguments.end() && result >= 0; ++list) {
        result = AppendTexts(call.get(), **list);
    }
    return result < 0 ? result : Send(bus, call, answer);
}

int GetText(sd_bus* bus, const std::string& unit, const char* interface, const char* property, std::string& value) {
    char* text = nullptr;
    const int result =
        sd_bus_get_property_string(bus, managerName, UnitPathOf(unit).get(), interface, property, nullptr, &text);
    const CText owned(text);
    if (result >= 0) value = text;
    return result;
}

int GetTexts(sd_bus* bus, const std::string& unit, const char* interface, const char* property,
             std::vector<std::string>& values) {
    char** texts = nullptr;
    const int result =
        sd_bus_get_property_strv(bus, managerName, UnitPathOf(unit).get(), interface, property, nullptr, &texts);
    const std::unique_ptr<char*, ReleasedBy<FreeTexts>> owned(texts);
    for (char** text = texts; text != nullptr && *text != nullptr; ++text) values.emplace_back(*text);
    return result;
}

}  // namespace platform::systemd
