// What keeps a test apart from the computer it runs on, by the means of its system.
#pragma once

#include <filesystem>
#include <string_view>

namespace kv::test {

/// How a line of a text file ends on this system.
extern const std::string_view fileLineEnd;

/// A new empty folder below the system's folder for temporary files; the caller removes it.
std::filesystem::path MakeTemporaryFolder();

/// Removes a folder with all that is in it, as far as that can be done.
void RemoveFolder(const std::filesystem::path& folder);

/// Gives this process, from the next InstallBackend on, a registry of its own, empty at first. Where the system keeps
/// one in files it lies in the folder.
void IsolateRegistry(const std::filesystem::path& folder);

}  // namespace kv::test
