// What the verbs need of the agent's libraries in a process that is not the agent: its lines, without its log.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"

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

/// Throws when a result of reading the registry says more than that the key or value does not exist: NotFoundError when
/// the registry's directory is missing, so that no agent is installed, else std::runtime_error with the reason.
void RequireReadableRegistry(platform::Error result);

/// Throws commandline::UsageError when a plan's name on the command line, in UTF-8, is that of a directory.
void RefuseDirectory(const std::string& name);

struct SlavePlan {
    std::u16string slave;
    std::u16string path;
};

/// The plans that lie beside a bin directory for slaves; the directory's path ends in a separator.
std::vector<SlavePlan> PlansOfSlaves(std::u16string_view bin);

/// What a line of the log says: without blanks and line ends around it, and without the routine's name ahead of "::".
std::string_view WithoutRoutine(std::string_view line);

}  // namespace kv::control
