// Calls to the service manager and what they answer, on top of sd-bus.
//
// Results are those of sd-bus: below 0, a negated errno value.
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "platform/owned_handle.h"

namespace platform::systemd {

inline constexpr const char* managerName = "org.freedesktop.systemd1";
inline constexpr const char* managerPath = "/org/freedesktop/systemd1";
inline constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";
inline constexpr const char* unitInterface = "org.freedesktop.systemd1.Unit";
inline constexpr const char* serviceInterface = "org.freedesktop.systemd1.Service";

using Message = std::unique_ptr<sd_bus_message, ReleasedBy<sd_bus_message_unref>>;
using CText = std::unique_ptr<char, ReleasedBy<std::free>>;

/// The object path of a unit.
CText UnitPathOf(const std::string& unit);

/// Begins a call of one of the manager's methods. The call does not start a manager where there is none.
[[nodiscard]] int MakeManagerCall(sd_bus* bus, const char* method, Message& call);

/// Appends a list of texts.
[[nodiscard]] int AppendTexts(sd_bus_message* message, const std::vector<std::string>& texts);

/// Sends a call and waits for its answer, patience times as long as the connection's other calls wait.
[[nodiscard]] int Send(sd_bus* bus, const Message& call, Message& answer, unsigned patience = 1);

/// Calls a method of the manager with lists of texts.
[[nodiscard]] int CallManager(sd_bus* bus, const char* method,
                              std::initializer_list<const std::vector<std::string>*> arguments, Message& answer);

/// Reads an array of structures: read takes the next one, and gives 0 at their end.
template <class Read>
int ReadArray(sd_bus_message* message, const char* element, Read read) {
    if (sd_bus_message_enter_container(message, 'a', element) <= 0) return -EBADMSG;
    int result = 1;
    while (result > 0) result = read();
    return result < 0 ? -EBADMSG : sd_bus_message_exit_container(message);
}

/// A number or truth value of a unit, of the type's size.
template <class Value>
int GetPlain(sd_bus* bus, const std::string& unit, const char* interface, const char* property, char type,
             Value& value) {
    return sd_bus_get_property_trivial(bus, managerName, UnitPathOf(unit).get(), interface, property, nullptr, type,
                                       &value);
}

int GetText(sd_bus* bus, const std::string& unit, const char* interface, const char* property, std::string& value);

/// Adds a list of texts, such as the names of other units, to values.
int GetTexts(sd_bus* bus, const std::string& unit, const char* interface, const char* property,
             std::vector<std::string>& values);

}  // namespace platform::systemd
