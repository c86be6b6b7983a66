#include "platform/linux/systemd/unit_file.h"

#include <algorithm>
#include <fmt/format.h>

namespace platform::systemd {

namespace {

bool IsControl(char character) { return static_cast<unsigned char>(character) < ' ' || character == '\x7f'; }

/// A value up to the end of its line. Replaces what the manager would read as the end of the line or a continuation.
std::string LineOf(std::string_view text) {
    std::string line;
    for (const char character : text) {
        line += IsControl(character) ? ' ' : character;
        if (character == '%') line += '%';
    }
    return line.ends_with('\\') ? line + ' ' : line;
}

/// One word, whatever it holds.
std::string Quoted(std::string_view text) {
    std::string word = "\"";
    for (const char character : text) {
        if (IsControl(character)) {
            word += fmt::format("\\x{:02x}", character);
            continue;
        }
        if (character == '"' || character == '\\') word += '\\';
        if (character == '%') word += '%';
        word += character;
    }
    return word + '"';
}

bool IsRestart(const RecoveryStep& step) { return step.action == RecoveryAction::restart; }

/// What a unit file says of restarts after failures, section by section.
struct Recovery {
    std::string ofUnit;
    std::string ofService;
};

Recovery RecoveryOf(const ServiceFailureActions& actions) {
    const auto end = std::find_if_not(actions.steps.begin(), actions.steps.end(), IsRestart);
    const auto restarts = end - actions.steps.begin();
    if (restarts == 0) return {};
    Recovery recovery{"StartLimitIntervalSec=0\n",
                      fmt::format("Restart=on-failure\nRestartSec={}ms\n", actions.steps[0].delayMilliseconds)};
    if (end == actions.steps.end()) return recovery;
    const bool isEver = actions.resetPeriodSeconds == neverReset;
    const std::string period = isEver ? "infinity" : std::to_string(actions.resetPeriodSeconds);
    recovery.ofUnit = fmt::format("StartLimitIntervalSec={}\nStartLimitBurst={}\n", period, restarts + 1);
    // Starts by hand count as well. This is run at a stop that was asked for, and not after a failure.
    recovery.ofService += "ExecStop=-systemctl reset-failed %n\n";
    return recovery;
}

}  // namespace

std::string UnitFileText(const UnitDescription& unit) {
    const Recovery recovery = unit.failureActions ? RecoveryOf(*unit.failureActions) : Recovery();
    std::string text = fmt::format("{}\n[Unit]\nDescription={}\n", unitFileMark, LineOf(unit.description));
    for (const std::string& name : unit.dependencies) text += fmt::format("Requires={0}\nAfter={0}\n", name);
    text += "Wants=network-online.target\nAfter=network-online.target dbus.service\n" + recovery.ofUnit;
    text += "\n[Service]\nType=notify\nNotifyAccess=main\n";
    // The colon keeps "$" as it is.
    text += fmt::format("ExecStart=:{}\n", Quoted(unit.program));
    for (const auto& [name, value] : unit.environment) text += "Environment=" + Quoted(name + "=" + value) + "\n";
    // What the agent and its scripts write is for the superuser: logs and records tell much about a computer.
    text += "UMask=0077\n";
    // A slow start is not ended, as that would count as a failure. Only the program is told to stop; what it has
    // started ends with it.
    text += "TimeoutStartSec=infinity\nKillMode=mixed\nTimeoutStopSec=30\n" + recovery.ofService;
    return text + "\n[Install]\nWantedBy=multi-user.target\n";
}

}  // namespace platform::systemd
