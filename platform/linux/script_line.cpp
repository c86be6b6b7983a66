#include "platform/linux/script_line.h"

#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/linux/linux.h"
#include "platform/utf.h"

namespace platform {

namespace {

/// In single quotes, in which the shell takes text literally. A quote inside ends the quoted part, is escaped, and
/// starts the next part; a zero character, which no argument can hold, becomes U+FFFD.
std::u16string Quoted(std::u16string_view text) {
    std::u16string quoted = u"'";
    for (const char16_t character : text) {
        if (character == u'\'') {
            quoted += u"'\\''";
        } else {
            quoted += character == u'\0' ? u'\uFFFD' : character;
        }
    }
    return quoted + u"'";
}

std::u16string QuotedFile(std::u16string_view path) { return Quoted(WideFromUtf8(NativePathOf(path))); }

/// Blanks and tabs separate arguments, double quotes keep them together and are removed, \" is a literal quote, and any
/// other backslash stands for itself. Quotes around nothing make an empty argument.
std::vector<std::u16string> SplitArguments(std::u16string_view text) {
    std::vector<std::u16string> arguments;
    std::u16string current;
    bool started = false;
    bool inQuotes = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char16_t character = text[at];
        if (!inQuotes && (character == u' ' || character == u'\t')) {
            if (started) arguments.push_back(std::exchange(current, {}));
            started = false;
            continue;
        }
        started = true;
        if (character == u'"') {
            inQuotes = !inQuotes;
        } else if (character == u'\\' && at + 1 < text.size() && text[at + 1] == u'"') {
            current.push_back(text[++at]);
        } else {
            current.push_back(character);
        }
    }
    if (started) arguments.push_back(current);
    return arguments;
}

/// What runs the script, with a blank at its end; empty when the script runs by itself. A missing script is left to the
/// shell, whose exit code 127 says so.
std::u16string Interpreter(const ScriptCommand& command, const std::string& path) {
    if (!command.scriptHost.empty()) return command.scriptHost + u" ";
    const bool existsWithoutPermission = access(path.c_str(), F_OK) == 0 && access(path.c_str(), X_OK) != 0;
    return existsWithoutPermission ? u"/bin/sh " : u"";
}

}  // namespace

std::u16string ComposeScriptLine(const ScriptCommand& command) {
    std::string path = NativePathOf(command.path);
    // Without a slash the shell would look for a program of this name instead.
    if (path.find('/') == std::string::npos) path.insert(0, "./");
    std::u16string line = u"exec " + Interpreter(command, path) + Quoted(WideFromUtf8(path));
    for (const std::u16string& argument : SplitArguments(command.arguments)) line += u" " + Quoted(argument);
    line += command.outputPath ? u">>" + QuotedFile(*command.outputPath) : u">/dev/null";
    return command.errorsPath ? line + u" 2>>" + QuotedFile(*command.errorsPath) : line;
}

ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost) {
    const bool printsWideText = scriptHost.find(u"//U") != std::u16string_view::npos;
    return printsWideText ? ScriptOutputEncoding::utf16LittleEndian : ScriptOutputEncoding::utf8;
}

}  // namespace platform
