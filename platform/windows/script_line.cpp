#include "platform/windows/script_line.h"

#include "platform/windows/win32.h"

namespace platform {

namespace {

std::u16string SystemDirectory() {
    wchar_t directory[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(directory, MAX_PATH);
    return TextOf({directory, length < MAX_PATH ? length : 0});
}

/// No file has a quote in its name.
std::u16string Quoted(std::u16string_view path) {
    std::u16string quoted = u"\"";
    for (const wchar_t character : NativePathOf(path)) {
        if (character != L'"') quoted += static_cast<char16_t>(character);
    }
    return quoted + u"\"";
}

/// Between double quotes nothing but these and percent signs means anything; a line end would end the command.
std::u16string Escaped(std::u16string_view arguments) {
    constexpr std::u16string_view signs = u"&|<>^()";
    std::u16string escaped;
    bool inQuotes = false;
    for (const char16_t character : arguments) {
        if (character == u'"') inQuotes = !inQuotes;
        if (!inQuotes && signs.find(character) != signs.npos) escaped += u'^';
        escaped += character == u'\r' || character == u'\n' || character == u'\0' ? u' ' : character;
    }
    // The redirection must not become a part of an argument.
    if (inQuotes) escaped += u'"';
    return escaped;
}

}  // namespace

std::u16string ComposeScriptLine(const ScriptCommand& command) {
    std::u16string line = SystemDirectory() + u"\\cmd.exe /C \"";
    if (!command.scriptHost.empty()) line += command.scriptHost + u" ";
    line += Quoted(command.path) + u" " + Escaped(command.arguments);
    // Right behind a digit the signs would redirect the stream of that number.
    if (command.outputPath && line.back() >= u'0' && line.back() <= u'9') line += u' ';
    if (command.outputPath) line += u">>" + Quoted(*command.outputPath);
    return line + u"\"";
}

ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost) {
    const bool printsWideText = scriptHost.find(u"//U") != std::u16string_view::npos;
    return printsWideText ? ScriptOutputEncoding::utf16LittleEndian : ScriptOutputEncoding::utf8;
}

}  // namespace platform
