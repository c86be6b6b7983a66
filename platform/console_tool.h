// What a command-line tool needs of the system besides the records of operations. Texts and file names are UTF-8, as
// CommandLineWords gives them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"

namespace platform {

/// A sentence for the tool's help: where the registry is kept.
std::string_view RegistryPlace();

/// Who may change the registry, as a message says it.
std::string_view RegistryOwner();

/// What a message says of access that was denied: whose rights it takes, or what denies it even to those.
std::string_view DeniedAccessText();

/// The command that starts the agent's service again, as one types it.
std::string_view ServiceRestartCommand();

/// The whole path of the registry's file; empty when the registry is not kept in one.
std::string RegistryFile();

/// The directory of the registry's file when it is missing or not a directory; else empty.
[[nodiscard]] std::string MissingRegistryDirectory();

/// What is wrong with the registry's file, which is there, that the registry failed, and what to do about it: goes on
/// from the file's name, as "is a directory; ...". Empty when that cannot be seen, or the registry is not kept in a
/// file.
[[nodiscard]] std::string RegistryFileFault(Error failure);

/// Who may do what with a file or directory, on a system that has modes.
struct FilePermissions {
    std::string mode;             // as chmod takes it
    std::string owner;            // name or number
    bool isOwnerTrusted = false;  // the superuser, or the user who asks
    bool othersRead = false;
    bool othersWrite = false;   // or those of another group than the owner's own
    bool isExecutable = false;  // by its owner
};

/// Of a wide path as platform/files.h takes it; absent when nothing is there, it may not be looked at, or this system
/// has no modes.
[[nodiscard]] std::optional<FilePermissions> GetFilePermissions(std::u16string_view path);

/// Whether a person at a terminal may answer a question.
[[nodiscard]] bool InputIsTerminal();

/// From now on Ctrl-C, or what else asks the program to end, ends nothing by itself: WasInterrupted tells of it.
void WatchForInterrupt();
[[nodiscard]] bool WasInterrupted();

/// While it lives, a first Ctrl-C ends nothing by itself, and WasInterrupted tells of it; another one ends the program.
/// Forgets an earlier interrupt. One at a time, on one thread.
class InterruptWatch {
  public:
    InterruptWatch();
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;
};

/// How many columns the terminal has that standard output goes to; 0 when it goes elsewhere.
[[nodiscard]] std::size_t OutputColumns();

/// False when nobody reads standard output any more; a program that prints seldom would not notice otherwise. True
/// where that cannot be found out.
[[nodiscard]] bool OutputHasReader();

/// Writes a file completely or not at all: after a failure the old file is as it was. Only its owner may read the new
/// one; on Windows administrators and the system may as well. A link is followed. What is not a file, such as a device
/// or a pipe, is written to in place, and on Linux so is the file that standard output leads to. Returns an empty text,
/// or the system's text for what went wrong.
[[nodiscard]] std::string WriteFileWhole(const std::string& name, std::string_view bytes);

/// Whether WriteFileWhole would replace a file that is there: not for a new one, nor for what it writes to in place.
[[nodiscard]] bool ReplacesFile(const std::string& name);

/// Whether a name leads to the registry's file or to one that belongs to it, whatever it is called and whether that is
/// there or not. False when the registry is not kept in a file.
[[nodiscard]] bool LeadsToRegistryFile(const std::string& name);

/// A new folder for temporary files, which nobody else may read, removed with all in it at the end.
class TemporaryFolder {
  public:
    /// Throws std::runtime_error with the system's text when it cannot be made.
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// As platform/files.h takes it.
    const std::u16string& path() const { return path_; }

  private:
    std::u16string path_;
};

}  // namespace platform
