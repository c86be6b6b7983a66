#include "tools/kvagentctl/script_file.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <utility>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

/// The program that env is asked for by what stands behind it in a first line. That comes to it as one word, which -S
/// parts at blanks. Empty when nobody can tell, because of other options or quotes.
std::string AskedOfEnv(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    if (!text.starts_with('-')) return std::string(text);
    bool isSplit = false;
    for (const std::string_view option : {"-S", "--split-string=", "-vS"}) {
        if (isSplit || !text.starts_with(option)) continue;
        isSplit = true;
        text.remove_prefix(option.size());
    }
    while (isSplit && !text.empty()) {
        text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
        const std::string_view word = text.substr(0, text.find_first_of(blanks));
        if (word.starts_with('-') || word.find_first_of("\"'\\$#") != std::string_view::npos) return "";
        if (word.find('=') == std::string_view::npos) return std::string(word);
        text.remove_prefix(word.size());  // a variable for the program
    }
    return "";
}

/// What is wrong with a first line that begins with "#!".
std::string InterpreterFault(std::string_view line) {
    line.remove_prefix(2);
    const std::size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
    const std::string interpreter(line.substr(begin, line.find_first_of(" \t", begin) - begin));
    if (!MayExist(platform::WideFromUtf8(interpreter)))
        return fmt::format("names the interpreter {}, which does not exist", interpreter);
    if (!interpreter.ends_with("/env")) return "";
    const std::size_t argument = std::min(line.find_first_not_of(" \t", begin + interpreter.size()), line.size());
    const std::string program = AskedOfEnv(line.substr(argument));
    return program.empty() || IsInPath(program) ? "" : fmt::format("asks env for '{}', which is not in PATH", program);
}

/// The number of a line with "#!" behind nothing but empty lines and comments; 0 without one, and when it asks for
/// /bin/sh, which runs the script anyway.
std::size_t LateInterpreterLine(std::string_view text) {
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.starts_with("#!")) return line.starts_with("#!/bin/sh") ? 0 : number;
        if (!line.starts_with('#') && line.find_first_not_of(" \t\r") != std::string_view::npos) return 0;
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return 0;
}

/// What is wrong with the beginning of a file that /bin/sh runs, because it names nothing else.
std::string ShellFault(std::u16string_view path, std::string_view text) {
    constexpr std::pair<std::u16string_view, const char*> interpreters[] = {
        {u".py", "python3"}, {u".pl", "perl"}, {u".rb", "ruby"}, {u".php", "php"}};
    if (text.starts_with("\xEF\xBB\xBF"))
        return "begins with a byte order mark, so that /bin/sh runs it: save it without one";
    if (const std::size_t number = LateInterpreterLine(text))
        return fmt::format("has #! in line {}: it has to be the first, else /bin/sh runs it", number);
    for (const auto& [extension, interpreter] : interpreters) {
        if (path.ends_with(extension))
            return fmt::format("has no #! line, so that /bin/sh runs it: begin it with #!/usr/bin/env {}", interpreter);
    }
    return "";
}

}  // namespace

bool IsInPath(const std::string& program) {
    if (program.find('/') != std::string::npos) return MayExist(platform::WideFromUtf8(program));
    const char* const path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "/usr/bin:/bin";
    for (bool isLast = false; !isLast;) {
        const std::size_t end = rest.find(':');
        if (MayExist(platform::WideFromUtf8(fmt::format("{}/{}", rest.substr(0, end), program)))) return true;
        isLast = end == std::string_view::npos;
        rest.remove_prefix(isLast ? rest.size() : end + 1);
    }
    return false;
}

std::string FirstLineFault(std::u16string_view path, bool isExecutable) {
    constexpr std::size_t longestLine = 256;  // bytes; the system looks at no more
    OpenFile file;
    platform::Error failure = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                                        platform::FileDisposition::openExisting);
    std::string text(4096, '\0');
    std::size_t read = 0;
    if (failure == platform::error::success)
        failure = platform::Files().ReadFile(file.handle, text.data(), text.size(), read);
    if (failure != platform::error::success) return fmt::format("cannot be read (error {})", failure);
    text.resize(read);
    const std::string_view line = std::string_view(text).substr(0, std::min(longestLine, text.find('\n')));
    if (line.ends_with('\r')) return "has CRLF line ends, so it cannot run";
    if (line.starts_with("#!")) return isExecutable ? InterpreterFault(line) : "";
    const bool isProgram = line.starts_with(
        "\x7F"
        "ELF");
    if (isProgram) return "";
    if (line.find('\0') != std::string::npos) return isExecutable ? "is neither a program nor a script" : "";
    return ShellFault(path, text);
}

}  // namespace kv::control
