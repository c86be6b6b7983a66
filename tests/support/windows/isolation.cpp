#include "tests/support/isolation.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace kv::test {

const std::string_view fileLineEnd = "\r\n";

namespace {

/// One key for each process, below the key of the user, where the process may write.
std::wstring PrivateKeyPath() { return L"Software\\kvagent-test-" + std::to_wstring(::GetCurrentProcessId()); }

void RemovePrivateKey() {
    ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    ::RegDeleteTreeW(HKEY_CURRENT_USER, PrivateKeyPath().c_str());
}

/// Keys that the system itself reads in the process's registry: the computer's name and the cryptographic services.
constexpr const wchar_t* systemKeys[] = {L"SYSTEM\\CurrentControlSet\\Control\\ComputerName",
                                         L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters",
                                         L"SOFTWARE\\Microsoft\\Cryptography"};

void CopySystemKeys(HKEY privateKey) {
    for (const wchar_t* path : systemKeys) {
        HKEY copy = nullptr;
        HKEY original = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &original) != ERROR_SUCCESS) continue;
        if (::RegCreateKeyExW(privateKey, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &copy, nullptr) ==
            ERROR_SUCCESS)
            ::RegCopyTreeW(original, nullptr, copy);
        ::RegCloseKey(copy);
        ::RegCloseKey(original);
    }
}

}  // namespace

std::filesystem::path MakeTemporaryFolder() {
    static std::atomic<int> made{0};
    const std::string start = "kvagent-test-" + std::to_string(::GetCurrentProcessId()) + "-";
    // An earlier process with the same number may have left its folder.
    while (true) {
        const std::filesystem::path folder = std::filesystem::temp_directory_path() / (start + std::to_string(++made));
        if (std::filesystem::create_directory(folder)) return folder;
    }
}

/// This library's remove_all never gives up on a file that is read-only or still open.
void RemoveFolder(const std::filesystem::path& folder) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        if (entry.is_directory(ignored)) {
            RemoveFolder(entry.path());
            continue;
        }
        ::SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
        ::DeleteFileW(entry.path().c_str());
    }
    ::RemoveDirectoryW(folder.c_str());
}

void IsolateRegistry(const std::filesystem::path&) {
    static const int removedAtEnd = std::atexit(RemovePrivateKey);
    RemovePrivateKey();
    HKEY key = nullptr;
    if (removedAtEnd != 0 || ::RegCreateKeyExW(HKEY_CURRENT_USER, PrivateKeyPath().c_str(), 0, nullptr, 0,
                                               KEY_ALL_ACCESS, nullptr, &key, nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("the process cannot get its own registry");
    CopySystemKeys(key);
    if (::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key) != ERROR_SUCCESS)
        throw std::runtime_error("the process cannot get its own registry");
    ::RegCloseKey(key);
}

}  // namespace kv::test
