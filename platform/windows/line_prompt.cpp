#include "platform/line_prompt.h"

#include <cstdio>

#include "platform/utf.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

constexpr DWORD longestLine = 8192;  // characters

}  // namespace

struct LinePrompt::State {
    std::string prompt;
};

LinePrompt::LinePrompt(const std::string&, const std::string& prompt, Complete)
    : state_(std::make_unique<State>(State{prompt})) {}

LinePrompt::~LinePrompt() = default;

/// The console itself edits a line and remembers those before it. Ctrl-Z at the beginning of a line is the end.
std::optional<std::string> LinePrompt::Read() {
    std::fputs(state_->prompt.c_str(), stdout);
    std::fflush(stdout);
    std::wstring line(longestLine, L'\0');
    DWORD read = 0;
    constexpr wchar_t end = 0x1A;
    if (!::ReadConsoleW(::GetStdHandle(STD_INPUT_HANDLE), line.data(), longestLine, &read, nullptr) || read == 0 ||
        line.front() == end)
        return std::nullopt;
    line.resize(read);
    line.erase(line.find_last_not_of(L"\r\n") + 1);
    return Utf8FromWide(Utf16FromWide(line));
}

}  // namespace platform
