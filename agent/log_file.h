// The agent's log file: opening, rotation by size into numbered files, closing. Lines are written by foundation/log.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Opens the log of a run under the bin directory; an absent name means "..\logs\agent.log". A log that another process
/// writes to is opened without rotating, and is not rotated as long as that process writes to it. A failure leaves no
/// log open, and sets gv_logOpenFailed. Called once for each run, before other threads log.
void RotateLogger(std::optional<std::u16string_view> name);

/// Opens the log of this run again by its name, and reads the configured limits: meanwhile another process may have
/// moved it away, or ended. Does nothing after EndLogRotation. Callable from any thread.
void ReopenLog();

/// Begins the log again, with its folder, when its file is not where it was: somebody has deleted it or moved it away,
/// and nobody would find what is written from then on. Also tries to open one that could not be opened. While that
/// fails nothing is logged, which standard error tells once. Callable from any thread.
void ReopenDeletedLog();

/// Why the log cannot be opened, behind its name, found out by another attempt: "is a directory".
std::string LogFault();

/// Whether another process wrote to the log when it was opened, and at the last rotation
/// or ReopenLog. Callable from any thread.
bool IsLogOfAnotherProcess();

/// Sets gv_logLevel from the registry; 1 when it cannot be read.
void ReadLogLevel();

/// Opens a log for appending, in the place of the one that is open: 1, or 99 when memory ran out. Any failure sets
/// gv_logOpenFailed: no log is open then, lines are dropped, and the counter still grows. It does not ask whether
/// rotation has ended.
int OpenLogFile(std::u16string_view path);

/// Rotates when count, the size of the log, has passed the limit, and opens the log when it is not open; always 0. With
/// count 0 the file is measured. Does nothing after EndLogRotation.
///
/// When gv_logBytes is neither 0 nor at the limit, and when the log cannot be measured, the rotation lock is still held
/// at the return, and whoever calls next waits forever. Lines never come here in those cases.
int RotateLogFile(std::uint32_t count);

/// From now on no rotation begins. One in progress may still rename older logs, and moves the current one only if it is
/// doing so at this moment. The first act of a stop; RotateLogger undoes it.
void EndLogRotation();

/// EndLogRotation, then writes the last line and closes the log: what other threads still log is lost. Does nothing
/// more when no log is open.
void StopLogging();

/// How many files have names that begin with the stem; -1 if no file has, or if the search fails.
[[nodiscard]] int CountLogFiles(std::u16string_view stem);

/// The stem of the path (up to ".log"), the number and ".log".
std::u16string LogFileNameAt(std::u16string_view path, std::uint32_t number);

}  // namespace kv
