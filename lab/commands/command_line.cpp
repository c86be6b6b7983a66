#include "lab/commands/command_line.h"

#include <cstdio>
#include <filesystem>

namespace kv::lab {

Store OpenExisting(const Given& given) {
    const std::string path = NeededValue(given, "--database");
    if (!std::filesystem::exists(path)) throw NotFoundError("there is no database " + path);
    return OpenStore(path);
}

void PrintLine(const std::string& line) {
    if (std::puts(line.c_str()) < 0) throw std::runtime_error("cannot write to standard output");
}

}  // namespace kv::lab
