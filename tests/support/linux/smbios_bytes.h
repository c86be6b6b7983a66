// Builds tables of SMBIOS (DMTF DSP0134).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kv::test {

using SmbiosField = std::array<std::uint64_t, 3>;  // offset, bytes, value

inline std::string SmbiosStructureBytes(int type, std::size_t length, const std::vector<SmbiosField>& fields,
                                        const std::vector<std::string>& strings) {
    std::string bytes(length, '\0');
    bytes[0] = static_cast<char>(type);
    bytes[1] = static_cast<char>(length);
    for (const auto& [offset, count, value] : fields) {
        for (std::size_t at = 0; at < count; ++at) bytes[offset + at] = static_cast<char>(value >> (8 * at));
    }
    for (const std::string& text : strings) bytes += text + '\0';
    return bytes + (strings.empty() ? std::string(2, '\0') : std::string(1, '\0'));
}

}  // namespace kv::test
