#include "tools/kvagentctl/script_file.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace kv::control {

namespace {

/// Whether a program is found by its name, or its path, as env looks for it.
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

}  // namespace

std::string FirstLineFault(std::u16string_view path, bool isExecutable) {
    OpenFile file;
    platform::Error failure = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                                        platform::FileDisposition::openExisting);
    std::string line(256, '\0');  // the system looks at no more
    std::size_t read = 0;
    if (failure == platform::error::success)
        failure = platform::Files().ReadFile(file.handle, line.data(), line.size(), read);
    if (failure != platform::error::success) return fmt::format("cannot be read (error {})", failure);
    line.resize(read);
    const bool isProgram = line.starts_with(
        "\x7F"
        "ELF");
    line.resize(std::min(read, line.find('\n')));
    if (line.ends_with('\r')) return "has CRLF line ends, so it cannot run";
    if (!isExecutable) return "";
    if (!line.starts_with("#!"))
        return isProgram || line.find('\0') == std::string::npos ? "" : "is neither a program nor a script";
    line.erase(0, 2);
    const std::size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
    const std::string interpreter = line.substr(begin, line.find_first_of(" \t", begin) - begin);
    if (!MayExist(platform::WideFromUtf8(interpreter)))
        return fmt::format("names the interpreter {}, which does not exist", interpreter);
    if (!interpreter.ends_with("/env")) return "";
    const std::size_t argument = std::min(line.find_first_not_of(" \t", begin + interpreter.size()), line.size());
    const std::string program = AskedOfEnv(std::string_view(line).substr(argument));
    return program.empty() || IsInPath(program) ? "" : fmt::format("asks env for '{}', which is not in PATH", program);
}

}  // namespace kv::control
