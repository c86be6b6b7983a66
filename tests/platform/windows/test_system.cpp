// The smaller lists of operations on Windows.
#include "platform/windows/win32.h"
#include "tests/support/test_folder.h"

namespace platform::test {

namespace {

using SystemTest = kv::test::TestFolder;

void SetProductName(const wchar_t* name) {
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"ProductName", REG_SZ,
                      name, static_cast<DWORD>((::wcslen(name) + 1) * sizeof(wchar_t)));
}

TEST_F(SystemTest, TellsTheSystemsVersionAndTheRegistrysName) {
    SystemVersion version;
    ASSERT_EQ(SystemFacts().GetVersionExW(version), error::success);
    EXPECT_EQ(version.family, SystemFamily::nt);
    EXPECT_GE(version.major * 10 + version.minor, 61U);
    EXPECT_TRUE(version.isAmd64);
    EXPECT_TRUE(version.plainName.starts_with(u"Windows "));  // the test's registry is empty
    SetProductName(L"Windows Server 2022 Standard");
    EXPECT_EQ(SystemFacts().GetVersionExW(version), error::success);
    EXPECT_EQ(version.plainName, u"Windows Server 2022 Standard");
}

TEST_F(SystemTest, ASocketIsNotInherited) {
    SocketHandle socket = 0;
    ASSERT_EQ(Sockets().socket(socket), error::success);
    DWORD flags = HANDLE_FLAG_INHERIT;
    EXPECT_TRUE(::GetHandleInformation(reinterpret_cast<HANDLE>(std::uintptr_t{socket - 1}), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
    EXPECT_EQ(Sockets().closesocket(socket), error::success);
}

}  // namespace

}  // namespace platform::test
