#include <memory>

#include "platform/guarded.h"
#include "platform/owned_handle.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The user's own.
constexpr DWORD defaultLanguage = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);

/// The folders with the system's own libraries, below its folder; WMI's are apart. No other folder is searched, so that
/// no other file of the same name is ever loaded.
constexpr const wchar_t* libraryFolders[] = {L"\\", L"\\wbem\\"};

/// A text of the module, if one is given and has it, else of the system.
std::optional<std::u16string> MessageText(DWORD origin, HMODULE module, Error code) {
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM | origin, module,
        code, defaultLanguage, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const std::unique_ptr<wchar_t, ReleasedBy<::LocalFree>> owned(text);
    if (length == 0) return std::nullopt;
    return Utf16FromWide({text, length});
}

std::optional<std::u16string> FormatMessageW(Error code) { return MessageText(0, nullptr, code); }

/// Empty when it cannot be found out.
std::wstring SystemFolder() {
    wchar_t folder[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(folder, MAX_PATH);
    return length < MAX_PATH ? std::wstring(folder, length) : std::wstring();
}

Error LoadLibraryW(std::u16string_view name, ModuleHandle& module) {
    const std::wstring folder = SystemFolder();
    if (folder.empty()) return error::pathNotFound;
    for (const wchar_t* below : libraryFolders) {
        const std::wstring path = folder + below + WideOf(name);
        module = reinterpret_cast<ModuleHandle>(::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
        if (module != 0) return error::success;
    }
    return LastError();
}

std::optional<std::u16string> FormatModuleMessageW(ModuleHandle module, Error code) {
    if (module == 0) return std::nullopt;
    return MessageText(FORMAT_MESSAGE_FROM_HMODULE, reinterpret_cast<HMODULE>(module), code);
}

}  // namespace

MessageOperations WindowsMessages() {
    return {.FormatMessageW = FormatMessageW,
            .LoadLibraryW = Guarded(LoadLibraryW),
            .FormatModuleMessageW = FormatModuleMessageW};
}

}  // namespace platform
