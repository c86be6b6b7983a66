#include "platform/linux/systemd/timers.h"

#include <algorithm>

#include "platform/linux/systemd/bus_message.h"

namespace platform::systemd {

namespace {

constexpr const char* timerInterface = "org.freedesktop.systemd1.Timer";

/// How the manager writes a time that never comes.
constexpr std::uint64_t never = UINT64_MAX;

/// Reads a property that is a list; read takes its next element off the message, and gives 0 at their end.
template <class Read>
int ReadList(sd_bus* bus, const std::string& timer, const char* property, const char* element, Read read) {
    sd_bus_message* answer = nullptr;
    const std::string type = std::string("a") + element;
    const int result = sd_bus_get_property(bus, managerName, UnitPathOf(timer).get(), timerInterface, property, nullptr,
                                           &answer, type.c_str());
    const Message reply(answer);
    return result < 0 ? result : ReadArray(answer, element, [&] { return read(answer); });
}

int ReadCalendar(sd_bus* bus, const std::string& timer, TimerState& state) {
    return ReadList(bus, timer, "TimersCalendar", "(sst)", [&](sd_bus_message* message) {
        const char* kind = "";
        const char* when = "";
        std::uint64_t next = 0;
        const int read = sd_bus_message_read(message, "(sst)", &kind, &when, &next);
        if (read > 0) state.calendar.emplace_back(when);
        return read;
    });
}

int ReadIntervals(sd_bus* bus, const std::string& timer, TimerState& state) {
    return ReadList(bus, timer, "TimersMonotonic", "(stt)", [&](sd_bus_message* message) {
        const char* kind = "";
        std::uint64_t interval = 0;
        std::uint64_t next = 0;
        const int read = sd_bus_message_read(message, "(stt)", &kind, &interval, &next);
        if (read > 0 && std::string_view(kind).starts_with("OnUnit")) state.followsItsUnit = true;
        return read;
    });
}

int ReadTime(sd_bus* bus, const std::string& timer, const char* property, std::uint64_t& time) {
    const int result = GetPlain(bus, timer, timerInterface, property, 't', time);
    if (time == never) time = 0;
    return result;
}

}  // namespace

int ReadTimer(sd_bus* bus, const std::string& timer, TimerState& state) {
    state = {};
    int result = GetText(bus, timer, timerInterface, "Unit", state.unit);
    if (result >= 0) result = ReadCalendar(bus, timer, state);
    if (result >= 0) result = ReadIntervals(bus, timer, state);
    if (result >= 0) result = ReadTime(bus, timer, "NextElapseUSecRealtime", state.nextRealtime);
    if (result >= 0) result = ReadTime(bus, timer, "NextElapseUSecMonotonic", state.nextMonotonic);
    if (result >= 0) result = ReadTime(bus, timer, "LastTriggerUSec", state.lastTrigger);
    return result;
}

std::optional<std::uint64_t> NextElapse(const TimerState& state, std::uint64_t nowRealtime,
                                        std::uint64_t nowMonotonic) {
    if (state.nextMonotonic == 0 && state.nextRealtime == 0) return std::nullopt;
    if (state.nextMonotonic == 0) return state.nextRealtime;
    const std::uint64_t monotonic = nowRealtime + state.nextMonotonic - nowMonotonic;  // may have passed already
    return state.nextRealtime == 0 ? monotonic : std::min(monotonic, state.nextRealtime);
}

}  // namespace platform::systemd
