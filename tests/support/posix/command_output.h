// What commands of the shell print.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace kv::test {

/// A command's output; its status is that of pclose.
inline std::string OutputOf(const std::string& command, int* status = nullptr) {
    const auto close = [status](FILE* pipe) {
        const int ended = pclose(pipe);
        if (status != nullptr) *status = ended;
    };
    const std::unique_ptr<FILE, decltype(close)> pipe(popen(command.c_str(), "r"), close);
    std::string output;
    for (int byte = std::fgetc(pipe.get()); byte != EOF; byte = std::fgetc(pipe.get())) {
        output += static_cast<char>(byte);
    }
    return output;
}

}  // namespace kv::test
