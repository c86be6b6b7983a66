#include "wql/classes/hardware/firmware_table.h"

#include <fmt/format.h>

namespace kv::wql {

WmiStatus StatusOfTable(const Gathering& gathering, const facts::SmbiosTable& table) {
    TellOfLostTable(gathering, table);
    if (!table.failure) return facts::IsWholeSmbios(table.bytes) ? wmi_status::ok : wmi_status::providerFailure;
    return table.failure == std::errc::permission_denied || table.failure == std::errc::operation_not_permitted
               ? wmi_status::accessDenied
               : wmi_status::providerFailure;
}

void TellOfLostTable(const Gathering& gathering, const facts::SmbiosTable& table) {
    if (!facts::IsWholeSmbios(table.bytes))
        gathering.notice("What the firmware's tables (SMBIOS) tell behind a malformed structure was left out");
    if (!table.failure) return;
    gathering.notice(fmt::format("What only the firmware's tables (SMBIOS) tell was left out; reading them failed: {}",
                                 table.failure.message()));
}

void TellOfForbiddenText(const Gathering& gathering, std::string_view dmiName) {
    if (!facts::IsForbiddenDmi(dmiName)) return;
    gathering.notice(fmt::format("{} was left out: only the superuser may read it", dmiName));
}

}  // namespace kv::wql
