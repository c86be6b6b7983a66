#include "lab/commands/command_line.h"

#include <cstdio>
#include <filesystem>

namespace kv::lab {

Store OpenExisting(const Given& given) {
    const std::string place = NeededValue(given, "--database");
    if (!IsPostgresPlace(place) && !std::filesystem::exists(place))
        throw NotFoundError("there is no database " + place);
    return OpenStore(place);
}

void PrintLine(const std::string& line) {
    if (std::puts(line.c_str()) < 0) throw std::runtime_error("cannot write to standard output");
}

}  // namespace kv::lab
