#include "tests/tools/tool_process.h"

#include <windows.h>

#include "platform/utf.h"

namespace kv::test {

namespace {

constexpr DWORD shared = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::filesystem::path ToolBesideThis() {
    wchar_t itself[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, itself, MAX_PATH);
    return std::filesystem::path(itself).parent_path() / "kvreg.exe";
}

/// A word that a program takes off its command line as it is; no test has a quote in one.
std::wstring Quoted(const std::string& word) {
    const std::u16string wide = platform::WideFromUtf8(word);
    const std::size_t backslashes = wide.size() - (wide.find_last_not_of(u'\\') + 1);  // before the closing quote
    return L" \"" + std::wstring(wide.begin(), wide.end()) + std::wstring(backslashes, L'\\') + L'"';
}

HANDLE DeadPipe() {
    HANDLE reading = nullptr;
    HANDLE writing = nullptr;
    if (::CreatePipe(&reading, &writing, nullptr, 0)) ::CloseHandle(reading);
    return writing;
}

HANDLE NewFile(const std::filesystem::path& path) {
    return ::CreateFileW(path.c_str(), GENERIC_WRITE, shared, nullptr, CREATE_ALWAYS, 0, nullptr);
}

}  // namespace

ToolProcess::ToolProcess(std::vector<std::string> words, const std::filesystem::path& output,
                         const std::filesystem::path& errors) {
    const std::filesystem::path tool = ToolBesideThis();
    std::wstring line = L"kvreg";
    for (const std::string& word : words) line += Quoted(word);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = output.empty() ? DeadPipe() : NewFile(output);
    start.hStdError = NewFile(errors);
    for (const HANDLE handle : {start.hStdOutput, start.hStdError})
        ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    PROCESS_INFORMATION process{};
    ::CreateProcessW(tool.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process);
    for (const HANDLE handle : {start.hStdOutput, start.hStdError, process.hThread}) ::CloseHandle(handle);
    process_ = reinterpret_cast<std::intptr_t>(process.hProcess);
}

ToolProcess::~ToolProcess() {
    const HANDLE process = reinterpret_cast<HANDLE>(process_);
    ::TerminateProcess(process, 1);
    ::WaitForSingleObject(process, INFINITE);
    ::CloseHandle(process);
}

int ToolProcess::ExitCode() {
    DWORD code = 0;
    const HANDLE process = reinterpret_cast<HANDLE>(process_);
    const bool ended = ::WaitForSingleObject(process, 60'000) == WAIT_OBJECT_0 && ::GetExitCodeProcess(process, &code);
    return ended ? static_cast<int>(code) : -1;
}

/// Nothing of a process's own can be given to another: the tests keep to a key of theirs.
void ShareRegistry(const std::filesystem::path&) {}

}  // namespace kv::test
