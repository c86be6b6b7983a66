#include "commandline/confirm.h"

#include <cctype>
#include <cstdio>
#include <fmt/format.h>
#include <string>

#include "commandline/program.h"
#include "platform/console_tool.h"

namespace kv::commandline {

bool Confirmed(std::string_view question) {
    if (!platform::InputIsTerminal())
        throw UsageError("this needs --yes, because standard input is not a terminal where someone could be asked");
    static_cast<void>(std::fflush(stdout));
    fmt::print(stderr, "{} [y/N] ", question);
    std::string answer;
    for (int letter = std::getchar(); letter != EOF && letter != '\n'; letter = std::getchar()) {
        if (letter != '\r') answer += static_cast<char>(std::tolower(letter));
    }
    return answer == "y" || answer == "yes";
}

}  // namespace kv::commandline
