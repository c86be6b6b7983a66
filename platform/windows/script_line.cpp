#include "platform/windows/script_line.h"

#include <algorithm>

#include "platform/windows/win32.h"

namespace platform {

namespace {

std::u16string SystemDirectory() {
    wchar_t directory[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(directory, MAX_PATH);
    return Utf16FromWide({directory, length < MAX_PATH ? length : 0});
}

/// A literal percent sign to the interpreter: followed by a variable that expands to nothing.
constexpr std::u16string_view percent = u"%%cd:~,%";

/// In double quotes, where only quotes and percent signs mean anything. Quotes in the text are dropped: no file has one
/// in its name.
std::u16string Quoted(std::u16string_view text) {
    std::u16string quoted = u"\"";
    for (const wchar_t character : NativePathOf(text)) {
        if (character == L'%') {
            quoted += percent;
        } else if (character != L'"') {
            quoted += static_cast<char16_t>(character);
        }
    }
    return quoted + u"\"";
}

/// Length of the first argument: up to a blank that is in no quotes.
std::size_t ArgumentLength(std::u16string_view arguments) {
    bool inQuotes = false;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        if (arguments[at] == u'"') inQuotes = !inQuotes;
        if (!inQuotes && arguments[at] == u' ') return at;
    }
    return arguments.size();
}

/// Each argument as it stands, or as a whole in quotes where it holds what the interpreter, or a batch file that is
/// given it, would take for its own. A line end would end the command.
std::u16string Protected(std::u16string_view arguments) {
    std::u16string given(arguments);
    std::replace_if(
        given.begin(), given.end(), [](char16_t c) { return c < u' '; }, u' ');
    std::u16string line;
    for (std::u16string_view left = given; !left.empty();) {
        const std::u16string_view argument = left.substr(0, ArgumentLength(left));
        const bool isPlain = argument.find_first_of(u"&|<>^(),;=%\"") == argument.npos;
        line += isPlain ? std::u16string(argument) : Quoted(argument);
        left.remove_prefix(argument.size());
        if (left.empty()) break;
        line += u' ';
        left.remove_prefix(1);
    }
    return line;
}

}  // namespace

std::u16string ComposeScriptLine(const ScriptCommand& command) {
    std::u16string line = SystemDirectory() + u"\\cmd.exe /C \"";
    if (!command.scriptHost.empty()) line += command.scriptHost + u" ";
    line += Quoted(command.path) + u" " + Protected(command.arguments);
    // A script that waits for input would wait until its limit. The blank keeps a number at the end an argument.
    line += u" <nul";
    if (command.outputPath) line += u" >>" + Quoted(*command.outputPath);
    if (command.errorsPath) line += u" 2>>" + Quoted(*command.errorsPath);
    return line + u"\"";
}

ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost) {
    const bool printsWideText = scriptHost.find(u"//U") != std::u16string_view::npos;
    return printsWideText ? ScriptOutputEncoding::utf16LittleEndian : ScriptOutputEncoding::utf8;
}

std::u16string WideFromConsoleBytes(std::string_view bytes) {
    const int size = static_cast<int>(bytes.size());
    std::wstring text(bytes.size(), L'\0');  // no code page makes more characters than bytes
    const int length = ::MultiByteToWideChar(CP_OEMCP, 0, bytes.data(), size, text.data(), size);
    text.resize(static_cast<std::size_t>(length));
    return Utf16FromWide(text);
}

}  // namespace platform
