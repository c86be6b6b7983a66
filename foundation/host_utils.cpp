#include "foundation/host_utils.h"

#include <array>
#include <functional>
#include <memory>
#include <utility>

#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/thread_pool.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::Sockets;
using platform::SystemFamily;
using platform::SystemVersion;
namespace error = platform::error;

/// The socket library, brought up for one call.
class SocketLibrary {
  public:
    SocketLibrary(int majorVersion, int minorVersion)
        : result_(Sockets().WSAStartup(majorVersion, minorVersion)), cleanUp_(Sockets().WSACleanup) {}
    ~SocketLibrary() {
        if (result_ == error::success) cleanUp_();
    }
    SocketLibrary(const SocketLibrary&) = delete;
    SocketLibrary& operator=(const SocketLibrary&) = delete;

    Error result() const { return result_; }

  private:
    Error result_;
    std::function<void()> cleanUp_;
};

Error LocalHostName(std::string& name) {
    const SocketLibrary library(2, 2);
    const Error result = library.result() == error::success ? Sockets().gethostname(name) : library.result();
    if (result != error::success) Log1("GetLocalComputerName: Error while getting computername! %d \n", result);
    return result;
}

using LookupWork = std::function<Error(std::u16string& found)>;

/// A lookup on a thread of its own. It lives as long as whoever asked or the thread needs it.
struct Lookup {
    LookupWork work;
    std::u16string found = {};
    Error result = error::generalFailure;
};

std::uint32_t RunLookup(void* argument) {
    const std::unique_ptr<std::shared_ptr<Lookup>> lookup(static_cast<std::shared_ptr<Lookup>*>(argument));
    RunGuarded("RunLookup", [&own = **lookup] { own.result = own.work(own.found); });
    return 0;
}

/// Waits no longer than the patience for a lookup, which silent name servers may hold up for a minute: waitTimeout
/// then, and the lookup ends by itself at some time.
Error LookUpWithin(std::uint32_t patience, LookupWork work, std::u16string& found) {
    if (patience == platform::infinite) return work(found);
    const auto lookup = std::make_shared<Lookup>(Lookup{std::move(work)});
    auto argument = std::make_unique<std::shared_ptr<Lookup>>(lookup);
    const platform::ThreadHandle thread = CreateNewThread_MSP(RunLookup, argument.get());
    if (thread == 0) return error::waitTimeout;
    static_cast<void>(argument.release());
    if (const Error waited = platform::Threads().WaitForThread(thread, patience)) return waited;
    found = std::move(lookup->found);
    return lookup->result;
}

/// What the computer's own name leads to. A lookup that outlasts the patience goes on owning the library.
Error AddressOfName(const std::string& name, std::uint32_t patience, const std::shared_ptr<SocketLibrary>& library,
                    std::u16string& address) {
    const auto resolve = [gethostbyname = Sockets().gethostbyname, name, library](std::u16string& found) {
        platform::HostEntry host;
        const Error result = gethostbyname(name, host);
        found = platform::WideFromUtf8(host.address);
        return result;
    };
    const Error result = LookUpWithin(patience, resolve, address);
    if (result != error::success) Log1("\t GetLocalIPAddr:: gethostbyname returned error %d:\n", result);
    return result;
}

/// True for an address that means another computer to everyone else.
bool IsLoopback(std::u16string_view address) { return address.starts_with(u"127."); }

void TakeHost(const platform::HostEntry& host, OptionalText& outName, OptionalText& outAddress) {
    outName = platform::WideFromUtf8(host.name);
    outAddress = platform::WideFromUtf8(host.address);
}

/// The fixed text for an NT version; null for an unknown one.
const char16_t* NtName(const SystemVersion& version) {
    if (version.major <= 4) return u"Windows NT";
    if (version.major == 5 && version.minor == 0) return u"Windows 2000";
    if (version.major == 5 && version.minor == 1) return u"Windows XP";
    if (version.major == 5 && version.minor == 2)
        return version.isWorkstation && version.isAmd64 ? u"Windows XP" : u"Windows 2003";
    if (version.major == 6 && version.minor == 0) return version.isWorkstation ? u"Windows Vista" : u"Windows 2008";
    if (version.major == 6 && version.minor == 1) return version.isWorkstation ? u"Windows 7" : u"Windows 2008 R2";
    return nullptr;
}

/// The fixed text for a 9x version; null for an unknown one.
const char16_t* NinetiesName(const SystemVersion& version) {
    if (version.major != 4) return nullptr;
    if (version.minor == 0) return u"Windows 95";
    if (version.minor == 10) return version.servicePack.starts_with(u" A") ? u"Windows 98 SE" : u"Windows 98";
    if (version.minor == 90) return u"Windows Millennium Edition\n";
    return nullptr;
}

const char16_t* FixedName(const SystemVersion& version) {
    switch (version.family) {
        case SystemFamily::nt:
            return NtName(version);
        case SystemFamily::win9x:
            return NinetiesName(version);
        case SystemFamily::win32s:
            return u"Win32s\n";
        case SystemFamily::other:
            break;
    }
    return nullptr;
}

}  // namespace

bool GetLocalComputerName(OptionalText& out) {
    Log3("\t Inside GetLocalComputerName() \n");
    out.reset();
    std::string name;
    if (LocalHostName(name) != error::success) return false;
    out = platform::WideFromUtf8(name);
    return true;
}

bool GetComputerNameWithDNS(OptionalText& out, std::uint32_t patience) {
    Log3("\t Inside GetComputerNameWithDNS() \n");
    out.reset();
    std::u16string name;
    const Error result = LookUpWithin(patience, platform::SystemFacts().GetComputerNameExW, name);
    if (result == error::waitTimeout) {
        Log1("GetComputerNameWithDNS: no name server has answered in %u ms. The plain name is taken\n", patience);
        return GetLocalComputerName(out);
    }
    if (result != error::success) {
        Log1("GetComputerNameWithDNS: Error while getting computername! %d \n", result);
        return false;
    }
    out = std::move(name);
    return true;
}

bool GetLocalIPAddr(OptionalText& out, std::uint32_t patience) {
    Log3("\t Inside GetLocalIPAddr() \n");
    out.reset();
    const auto library = std::make_shared<SocketLibrary>(1, 1);
    if (library->result() != error::success) {
        Log1("\t GetLocalIPAddr  :: WSAStartup Error -> %d\n", library->result());
        return false;
    }
    std::string name;
    if (const Error result = LocalHostName(name)) {
        Log1("\t GetLocalIPAddr:: Error while fetching local computer name %d:\n", result);
        return false;
    }
    std::u16string address;
    const bool isFound = AddressOfName(name, patience, library, address) == error::success;
    std::string routed;
    if (isFound && !IsLoopback(address)) {
        out = std::move(address);
    } else if (Sockets().GetDefaultRouteAddress(routed) == error::success) {
        Log1("\t GetLocalIPAddr:: the address of the interface with the default route is taken: %s\n", routed);
        out = platform::WideFromUtf8(routed);
    } else if (isFound) {
        out = std::move(address);
    }
    return out.has_value();
}

bool GetRemoteHostDetails(std::u16string_view name, OptionalText& outName, OptionalText& outAddress) {
    Log3("\t Inside GetRemoteHostDetails() \n");
    outName.reset();
    outAddress.reset();
    const SocketLibrary library(1, 1);
    if (library.result() != error::success) {
        Log1("Can't Initialize Socket \n");
        return false;
    }
    std::string narrowName = platform::Utf8FromWide(name);
    std::array<std::uint8_t, 4> address{};
    // An address ends at a blank, a name does not.
    if (Sockets().inet_addr(narrowName, address)) narrowName = narrowName.substr(0, narrowName.find(' '));
    platform::HostEntry host;
    if (Sockets().gethostbyaddr(narrowName, host) == error::success) {
        TakeHost(host, outName, outAddress);
        Log2("\t [HostByAddr] RemoteAgent Name : %s\n", outName);
        Log2("\t [HostByAddr] RemoteAgent Ip Address : %s\n", outAddress);
        return true;
    }
    if (const Error result = Sockets().gethostbyname(narrowName, host)) {
        Log1("Check the hostName%d\n", result);
        return false;
    }
    TakeHost(host, outName, outAddress);
    Log2("\t RemoteAgent Name : %s\n", outName);
    Log2("\t RemoteAgent Ip Address : %s\n", outAddress);
    return true;
}

std::u16string GetOSName() {
    Log3("\t Inside GetOSName() \n");
    SystemVersion version;
    if (platform::SystemFacts().GetVersionExW(version) != error::success) return u"NULL";
    if (const char16_t* name = FixedName(version)) return name;
    return version.plainName.empty() ? u"NULL" : version.plainName;
}

}  // namespace kv
