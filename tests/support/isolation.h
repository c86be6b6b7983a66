// Keeps a test apart from the computer that it runs on.
#pragma once

#include <filesystem>
#include <string_view>

namespace kv::test {

/// The end of a line in this system's text files.
extern const std::string_view fileLineEnd;

/// A new empty folder below the system's folder for temporary files; the caller removes it.
std::filesystem::path MakeTemporaryFolder();

/// Removes a folder and what is in it, as far as possible.
void RemoveFolder(const std::filesystem::path& folder);

/// Gives this process its own registry, empty at first, from the next InstallBackend on. A system that keeps registries
/// in files keeps this one in the folder.
void IsolateRegistry(const std::filesystem::path& folder);

}  // namespace kv::test
