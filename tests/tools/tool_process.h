// kvreg at work, as a program of its own.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace kv::test {

/// Has the system's shell start the tool, with words in UTF-8 that have no quotes in them. What it prints is read from
/// the stream; its errors go to a file.
std::FILE* StartTool(const std::vector<std::string>& words, const std::filesystem::path& errors);

/// Reads no more, and waits for the tool's end; its exit code, -1 when it did not come to one of its own.
int EndTool(std::FILE* tool);

/// Has the tool and this process share a registry: where that lies in files one in the folder, else the computer's.
void ShareRegistry(const std::filesystem::path& folder);

}  // namespace kv::test
