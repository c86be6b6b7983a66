// A tool as a child process.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace kv::test {

/// A tool's program, and the files beside it.
struct ToolFiles {
    std::string program;
    std::filesystem::path input;   // what it reads
    std::filesystem::path errors;  // what it writes to standard error
};

/// Starts the tool through the system's shell. words: UTF-8 without quotes. Its output comes from the stream.
std::FILE* StartTool(const ToolFiles& files, const std::vector<std::string>& words);

/// Stops reading and waits for the tool's end; its exit code, or -1 after a signal.
int EndTool(std::FILE* tool);

/// Makes the tool and this process share a registry: one in the folder if registries are files, else the computer's.
void ShareRegistry(const std::filesystem::path& folder);

}  // namespace kv::test
