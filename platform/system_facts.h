// Facts about this computer and its system.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

enum class SystemFamily { win32s, win9x, nt, other };

struct SystemVersion {
    SystemFamily family = SystemFamily::other;
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::u16string servicePack;  // text such as " A" or "Service Pack 1"; empty when there is none
    bool isWorkstation = false;  // else a server
    bool isAmd64 = false;
    std::u16string plainName;  // the system's own name for itself, for systems without a fixed text
};

struct SystemFactOperations {
    std::function<Error(SystemVersion& version)> GetVersionExW;

    /// The computer's fully qualified DNS name.
    std::function<Error(std::u16string& name)> GetComputerNameExW;

    /// The bytes of a secret that the service manager hands to this process alone, by its name (systemd.exec(5),
    /// LoadCredential=). fileNotFound without one of that name, and on a system whose manager hands out none.
    std::function<Error(std::string_view name, std::string& secret)> ReadCredential;
};

inline const SystemFactOperations& SystemFacts() { return CurrentOperations<SystemFactOperations>(); }

}  // namespace platform
