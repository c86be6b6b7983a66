// The agent's log file: opening, rotation by size into numbered files, closing. The log step is foundation/log.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Opens the log for a run; null means "..\logs\agent.log". A log that another process writes to is opened without
/// rotating, then and later. Called once per process.
void RotateLogger(std::optional<std::u16string_view> name);

/// Sets gv_logLevel from the registry, 1 where that fails.
void ReadLogLevel();

/// Rotates when the counter has passed the limit, and opens the log when it is not open; 0. Where the counter is small
/// but not 0, and where the log has to be measured (count 0) and cannot be, the rotation lock is still held at the
/// return, and whoever calls next waits forever. Lines are kept from both.
int RotateLogFile(std::uint32_t count);

/// From now on nothing moves the log or opens it again, and no line waits for a rotation. The first act of a stop.
void EndLogRotation();

/// Writes the last line and closes the log for good: what other threads still log is lost. Once it is closed, nothing.
void StopLogging();

/// Opens a log for appending; 1. A failure only sets gv_logOpenFailed: lines are then dropped, the counter still grows.
int OpenLogFile(std::u16string_view path);

/// Number of files that begin with the stem, or -1 when the search fails.
[[nodiscard]] int CountLogFiles(std::u16string_view stem);

/// stem of path + number + ".log".
std::u16string LogFileNameAt(std::u16string_view path, std::uint32_t number);

}  // namespace kv
