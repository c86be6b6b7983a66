#include <bit>
#include <fmt/format.h>

#include "platform/guarded.h"
#include "platform/utf.h"
#include "platform/windows/computer_name.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The first build that is called Windows 11. Its number is 10.0 still, and so is its ProductName.
constexpr DWORD firstBuildOfWindows11 = 22000;

/// The system's real version, not the newest one that the program's manifest names.
Error TrueVersion(OSVERSIONINFOEXW& version) {
    using RtlGetVersionRoutine = LONG(WINAPI*)(OSVERSIONINFOEXW*);
    const HMODULE library = ::GetModuleHandleW(L"ntdll.dll");
    const FARPROC routine = library != nullptr ? ::GetProcAddress(library, "RtlGetVersion") : nullptr;
    if (routine == nullptr) return LastError();
    version = {};
    version.dwOSVersionInfoSize = sizeof version;
    return std::bit_cast<RtlGetVersionRoutine>(routine)(&version) == 0 ? error::success : error::generalFailure;
}

SystemFamily FamilyOf(DWORD platformId) {
    switch (platformId) {
        case VER_PLATFORM_WIN32s:
            return SystemFamily::win32s;
        case VER_PLATFORM_WIN32_WINDOWS:
            return SystemFamily::win9x;
        case VER_PLATFORM_WIN32_NT:
            return SystemFamily::nt;
        default:
            return SystemFamily::other;
    }
}

bool IsAmd64() {
    SYSTEM_INFO processor{};
    ::GetNativeSystemInfo(&processor);
    return processor.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
}

/// Such as "Windows 10 Pro"; empty where the system does not say.
std::u16string ProductName() {
    wchar_t name[256];
    DWORD size = sizeof name;
    const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                                          L"ProductName", RRF_RT_REG_SZ, nullptr, name, &size);
    return result == ERROR_SUCCESS ? Utf16FromWide(name) : std::u16string();
}

std::u16string PlainNameOf(const OSVERSIONINFOEXW& version) {
    constexpr std::u16string_view windows10 = u"Windows 10";
    std::u16string name = ProductName();
    if (name.empty()) {
        name = WideFromUtf8(fmt::format("Windows {}.{}", version.dwMajorVersion, version.dwMinorVersion));
    }
    if (version.dwBuildNumber >= firstBuildOfWindows11 && name.starts_with(windows10)) {
        name.replace(0, windows10.size(), u"Windows 11");
    }
    return name;
}

Error GetVersionExW(SystemVersion& version) {
    OSVERSIONINFOEXW system{};
    if (const Error failure = TrueVersion(system)) return failure;
    version = {.family = FamilyOf(system.dwPlatformId),
               .major = system.dwMajorVersion,
               .minor = system.dwMinorVersion,
               .servicePack = Utf16FromWide(system.szCSDVersion),
               .isWorkstation = system.wProductType == VER_NT_WORKSTATION,
               .isAmd64 = IsAmd64(),
               .plainName = PlainNameOf(system)};
    return error::success;
}

}  // namespace

Error ComputerName(COMPUTER_NAME_FORMAT form, std::u16string& name) {
    std::wstring buffer(256, L'\0');
    while (true) {
        auto size = static_cast<DWORD>(buffer.size());
        if (::GetComputerNameExW(form, buffer.data(), &size)) {
            name = Utf16FromWide(std::wstring_view(buffer).substr(0, size));
            return error::success;
        }
        if (::GetLastError() != ERROR_MORE_DATA || size <= buffer.size()) return LastError();
        buffer.resize(size);
    }
}

SystemFactOperations WindowsSystemFacts() {
    return {
        .GetVersionExW = Guarded(GetVersionExW),
        .GetComputerNameExW =
            Guarded([](std::u16string& name) { return ComputerName(ComputerNameDnsFullyQualified, name); }),
        .ReadCredential = [](std::string_view, std::string&) { return error::fileNotFound; },
    };
}

}  // namespace platform
