#include "facts/hardware/smbios.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::size_t headerLength = 4;  // type, length, and the handle's two bytes
constexpr std::uint8_t endOfTable = 127;

std::uint64_t LittleEndian(std::string_view bytes, std::size_t offset, std::size_t count) {
    if (offset + count > bytes.size()) return 0;
    std::uint64_t number = 0;
    for (std::size_t at = count; at > 0; --at)
        number = number << 8 | static_cast<unsigned char>(bytes[offset + at - 1]);
    return number;
}

/// Takes the strings that follow a formatted part off a table. Each ends with a zero byte, and so does the list; an
/// empty list is two zero bytes. False when the table ends too early.
bool TakeStrings(std::string_view& table, std::vector<std::string_view>& strings) {
    for (std::size_t end = table.find('\0'); end != std::string_view::npos; end = table.find('\0')) {
        const std::string_view text = table.substr(0, end);
        table.remove_prefix(end + 1);
        if (!text.empty()) {
            strings.push_back(text);
            continue;
        }
        if (!strings.empty()) return true;
        if (!table.starts_with('\0')) return false;
        table.remove_prefix(1);
        return true;
    }
    return false;
}

std::string DmiPath(std::string_view name) { return "/sys/class/dmi/id/" + std::string(name); }

bool TakeStructure(std::string_view& table, SmbiosStructure& structure) {
    if (table.size() < headerLength) return false;
    structure.type = static_cast<std::uint8_t>(table[0]);
    structure.handle = static_cast<std::uint16_t>(LittleEndian(table, 2, 2));
    const std::size_t length = static_cast<unsigned char>(table[1]);
    if (length < headerLength || length > table.size()) return false;
    structure.formatted = table.substr(0, length);
    table.remove_prefix(length);
    return TakeStrings(table, structure.strings);
}

}  // namespace

std::uint8_t SmbiosStructure::byteAt(std::size_t offset) const {
    return static_cast<std::uint8_t>(LittleEndian(formatted, offset, 1));
}

std::uint16_t SmbiosStructure::wordAt(std::size_t offset) const {
    return static_cast<std::uint16_t>(LittleEndian(formatted, offset, 2));
}

std::uint32_t SmbiosStructure::doubleWordAt(std::size_t offset) const {
    return static_cast<std::uint32_t>(LittleEndian(formatted, offset, 4));
}

std::uint64_t SmbiosStructure::quadWordAt(std::size_t offset) const { return LittleEndian(formatted, offset, 8); }

std::optional<std::string> SmbiosStructure::stringAt(std::size_t offset) const {
    const std::size_t number = byteAt(offset);
    if (number == 0 || number > strings.size()) return std::nullopt;
    const std::string_view text = Trimmed(strings[number - 1]);
    return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

std::vector<SmbiosStructure> ParseSmbios(std::string_view table) {
    std::vector<SmbiosStructure> structures;
    for (SmbiosStructure next; TakeStructure(table, next); next = {}) {
        structures.push_back(next);
        if (next.type == endOfTable) break;
    }
    return structures;
}

bool IsWholeSmbios(std::string_view table) {
    SmbiosStructure next;
    while (next.type != endOfTable && !table.empty()) {
        next = {};
        if (!TakeStructure(table, next)) return false;
    }
    return true;
}

SmbiosStructure FirstOfType(const std::vector<SmbiosStructure>& structures, std::uint8_t type) {
    for (const SmbiosStructure& structure : structures) {
        if (structure.type == type) return structure;
    }
    return {};
}

std::optional<std::uint32_t> KnownNumber(std::uint32_t number) {
    return number == 0 ? std::nullopt : std::optional(number);
}

std::optional<std::string> ChassisStockNumberOf(const SmbiosStructure& enclosure) {
    constexpr std::size_t partsAt = 0x15;
    const std::size_t partsLength = std::size_t{enclosure.byteAt(0x13)} * enclosure.byteAt(0x14);
    return enclosure.stringAt(partsAt + partsLength);
}

SmbiosTable ReadSmbiosTable(const std::string& path) {
    if (std::optional<std::string> bytes = platform::ReadSystemFile(path)) return {std::move(*bytes), {}};
    const int reason = errno;
    const bool isAbsent = reason == ENOENT || reason == ENOTDIR;
    return {{}, isAbsent ? std::error_code() : std::error_code(reason, std::generic_category())};
}

std::optional<std::string> ReadDmi(std::string_view name) { return ReadSystemLine(DmiPath(name)); }

bool IsForbiddenDmi(std::string_view name) {
    return faccessat(AT_FDCWD, DmiPath(name).c_str(), R_OK, AT_EACCESS) != 0 && errno == EACCES;
}

std::optional<std::string> ReadDeviceTree(std::string_view name) {
    const std::optional<std::string> texts = ReadSystemLine("/proc/device-tree/" + std::string(name));
    return texts ? std::optional(texts->substr(0, texts->find('\0'))) : std::nullopt;
}

}  // namespace kv::facts
