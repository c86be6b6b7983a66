// What the verbs need of the agent's libraries in a process that is not the agent: its lines, without its log.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kv::control {

/// While it lives, what the agent's libraries would write to the log at level 1 (or the level given) goes to a
/// function, one line without its date at a time; no file is opened. One at a time may live.
class LogLines {
  public:
    explicit LogLines(std::function<void(std::string_view line)> take, unsigned level = 1);
    ~LogLines();
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;
};

/// What a line of the log says: without blanks and line ends around it, and without the routine's name ahead of "::".
std::string_view WithoutRoutine(std::string_view line);

}  // namespace kv::control
