#include "platform/console_tool.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "platform/owned_handle.h"
#include "platform/utf.h"
#include "platform/windows/system_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <sddl.h>
#include <winternl.h>

namespace platform {

namespace {

/// Full access for the owner, for administrators and for the system; nothing comes down from the folder above.
constexpr const wchar_t* privateAccess = L"D:P(A;;FA;;;OW)(A;;FA;;;BA)(A;;FA;;;SY)";
/// The same for a folder and all in it.
constexpr const wchar_t* privateFolderAccess = L"D:P(A;OICI;FA;;;OW)(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)";

constexpr ULONG pipeIsClosing = 4;        // FILE_PIPE_CLOSING_STATE
constexpr DWORD largestWrite = 1U << 20;  // bytes; a console takes no large ones
constexpr int maximumNames = 1000;        // tried for the file beside the one to be replaced

std::atomic<bool> isInterrupted{false};

Error WriteAll(HANDLE file, std::string_view bytes) {
    while (!bytes.empty()) {
        const DWORD size = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), largestWrite));
        DWORD written = 0;
        if (!::WriteFile(file, bytes.data(), size, &written, nullptr)) return LastError();
        bytes.remove_prefix(written);
    }
    return error::success;
}

/// A security descriptor by its text; null when the system does not take it, and LastError says why.
using OwnedDescriptor = std::unique_ptr<void, ReleasedBy<::LocalFree>>;
OwnedDescriptor DescriptorOf(const wchar_t* access) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(access, SDDL_REVISION_1, &descriptor, nullptr))
        return nullptr;
    return OwnedDescriptor(descriptor);
}

/// A new file beside the one of that name, with a name that no other file has.
Error MakePartialFile(const std::wstring& path, std::wstring& partial, SystemHandle& file) {
    const OwnedDescriptor descriptor = DescriptorOf(privateAccess);
    if (!descriptor) return LastError();
    SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
    Error failure = error::fileExists;
    for (int tried = 0; failure == error::fileExists && tried < maximumNames; ++tried) {
        partial = path + L"." + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(tried);
        file = OwnedFile(
            ::CreateFileW(partial.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        failure = file ? error::success : LastError();
    }
    return failure;
}

/// Writes beside the file and renames.
Error ReplaceFile(const std::wstring& path, std::string_view bytes) {
    std::wstring partial;
    SystemHandle file;
    if (const Error failure = MakePartialFile(path, partial, file)) return failure;
    Error failure = WriteAll(file.get(), bytes);
    if (failure == error::success) failure = ResultOf(::FlushFileBuffers(file.get()));
    file.Close();
    constexpr DWORD flags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
    if (failure == error::success) failure = ResultOf(::MoveFileExW(partial.c_str(), path.c_str(), flags));
    if (failure != error::success) ::DeleteFileW(partial.c_str());
    return failure;
}

/// The full name of what a name has led to; empty when the system does not tell it.
std::wstring FinalName(HANDLE file) {
    std::wstring name(::GetFinalPathNameByHandleW(file, nullptr, 0, FILE_NAME_NORMALIZED), L'\0');
    const DWORD size = static_cast<DWORD>(name.size());
    const DWORD length = ::GetFinalPathNameByHandleW(file, name.data(), size, FILE_NAME_NORMALIZED);
    name.resize(length < size ? length : 0);
    return name;
}

Error WriteOutput(const std::wstring& path, std::string_view bytes) {
    SystemHandle there =
        OwnedFile(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, 0, nullptr));
    const Error failure = there ? error::success : LastError();
    if (failure == error::fileNotFound) return ReplaceFile(path, bytes);
    if (failure != error::success) return failure;
    if (::GetFileType(there.get()) != FILE_TYPE_DISK) return WriteAll(there.get(), bytes);
    const std::wstring whole = FinalName(there.get());
    there.Close();  // a file that is open is not replaced
    return ReplaceFile(whole.empty() ? path : whole, bytes);
}

/// Leaves all but the first Ctrl-C to the system, which ends the program.
BOOL WINAPI TakeFirstInterrupt(DWORD event) {
    return event == CTRL_C_EVENT && !isInterrupted.exchange(true) ? TRUE : FALSE;
}

}  // namespace

std::string_view RegistryPlace() {
    return "The registry is the computer's own; to change it takes the rights of an administrator.";
}

std::string_view RegistryOwner() { return "an administrator"; }

std::string_view DeniedAccessText() { return "it takes the rights of an administrator"; }

std::string_view ServiceRestartCommand() {
    return "net stop \"Corvinel Monitoring Agent\" & net start \"Corvinel Monitoring Agent\"";
}

std::string RegistryFile() { return {}; }

std::optional<FilePermissions> GetFilePermissions(std::u16string_view) { return std::nullopt; }

std::string MissingRegistryDirectory() { return {}; }

std::string RegistryFileFault(Error) { return {}; }

void WatchForInterrupt() {
    ::SetConsoleCtrlHandler(
        [](DWORD) -> BOOL {
            isInterrupted = true;
            return TRUE;
        },
        TRUE);
}

bool WasInterrupted() { return isInterrupted; }

InterruptWatch::InterruptWatch() {
    isInterrupted = false;
    ::SetConsoleCtrlHandler(TakeFirstInterrupt, TRUE);
}

InterruptWatch::~InterruptWatch() { ::SetConsoleCtrlHandler(TakeFirstInterrupt, FALSE); }

bool InputIsTerminal() {
    DWORD mode = 0;  // only a console has one
    return ::GetConsoleMode(::GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

std::size_t OutputColumns() {
    CONSOLE_SCREEN_BUFFER_INFO information{};
    if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &information)) return 0;
    return static_cast<std::size_t>(information.srWindow.Right - information.srWindow.Left + 1);
}

/// Asks for the other end of a pipe without touching it. Whoever made the pipe may not have given the right to ask;
/// then the next line that is printed finds out.
bool OutputHasReader() {
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    if (::GetFileType(output) != FILE_TYPE_PIPE) return true;
    FILE_PIPE_LOCAL_INFORMATION pipe{};
    IO_STATUS_BLOCK status{};
    const NTSTATUS result = ::NtQueryInformationFile(output, &status, &pipe, sizeof pipe, FilePipeLocalInformation);
    return !NT_SUCCESS(result) || pipe.NamedPipeState != pipeIsClosing;
}

std::string WriteFileWhole(const std::string& name, std::string_view bytes) {
    const Error failure = WriteOutput(NativePathOf(WideFromUtf8(name)), bytes);
    if (failure == error::success) return {};
    const std::string text = MessageInLine(failure);
    return text.empty() ? "error " + std::to_string(failure) : text;
}

bool ReplacesFile(const std::string& name) {
    const SystemHandle there = OwnedFile(::CreateFileW(NativePathOf(WideFromUtf8(name)).c_str(), 0,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                       OPEN_EXISTING, 0, nullptr));
    return there && ::GetFileType(there.get()) == FILE_TYPE_DISK;
}

bool LeadsToRegistryFile(const std::string&) { return false; }

TemporaryFolder::TemporaryFolder() {
    std::wstring above(::GetTempPathW(0, nullptr), L'\0');
    above.resize(::GetTempPathW(static_cast<DWORD>(above.size()), above.data()));
    const OwnedDescriptor descriptor = DescriptorOf(privateFolderAccess);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
    for (int tried = 0; descriptor && tried < maximumNames; ++tried) {
        const std::wstring name =
            above + L"kvagent-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(tried);
        if (::CreateDirectoryW(name.c_str(), &attributes)) {
            path_ = Utf16FromWide(name);
            return;
        }
        if (::GetLastError() != ERROR_ALREADY_EXISTS) break;
    }
    throw std::runtime_error("no folder can be made in " + Utf8FromWide(Utf16FromWide(above)) + ": " +
                             MessageInLine(LastError()));
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(WideOf(path_), ignored);
}

}  // namespace platform
