#include "tools/kvreg/value_text.h"

#include <fmt/format.h>
#include <optional>
#include <span>
#include <vector>

#include "commandline/run.h"
#include "platform/utf.h"

namespace kv {

namespace {

using commandline::InLine;

using platform::RegistryType;

std::optional<std::uint32_t> DwordIn(const RegFileValue& value) {
    if (value.type != RegistryType::dword || value.data.size() != 4) return std::nullopt;
    std::uint32_t number = 0;
    for (std::size_t i = 4; i-- > 0;) number = number << 8 | std::to_integer<std::uint32_t>(value.data[i]);
    return number;
}

/// The texts of a list, up to the empty one that ends it.
std::string JoinedTexts(std::span<const std::byte> data, std::string_view separator) {
    std::string joined;
    while (true) {
        const std::u16string text = TextOfData(data);
        if (text.empty()) return joined;
        if (!joined.empty()) joined += separator;
        joined += platform::Utf8FromWide(text);
        data = data.subspan(std::min((text.size() + 1) * 2, data.size()));
    }
}

std::string Hexadecimal(std::span<const std::byte> data) {
    std::string text;
    for (const std::byte byte : data) text += fmt::format("{:02x}", std::to_integer<unsigned>(byte));
    return text;
}

std::string DataText(const RegFileValue& value, std::string_view separator) {
    switch (value.type) {
        case RegistryType::text:
        case RegistryType::expandableText:
            return platform::Utf8FromWide(TextOfData(value.data));
        case RegistryType::multiText:
            return JoinedTexts(value.data, separator);
        default:
            return Hexadecimal(value.data);
    }
}

}  // namespace

std::string TypeName(RegistryType type) {
    static constexpr const char* names[] = {"REG_NONE",
                                            "REG_SZ",
                                            "REG_EXPAND_SZ",
                                            "REG_BINARY",
                                            "REG_DWORD",
                                            "REG_DWORD_BIG_ENDIAN",
                                            "REG_LINK",
                                            "REG_MULTI_SZ",
                                            "REG_RESOURCE_LIST",
                                            "REG_FULL_RESOURCE_DESCRIPTOR",
                                            "REG_RESOURCE_REQUIREMENTS_LIST",
                                            "REG_QWORD"};
    const auto number = static_cast<std::uint32_t>(type);
    return number < std::size(names) ? names[number] : fmt::format("REG_TYPE_{}", number);
}

std::string PlainData(const RegFileValue& value) {
    const std::optional<std::uint32_t> number = DwordIn(value);
    return number ? fmt::format("{}", *number) : DataText(value, "\n");
}

std::string DataInLine(const RegFileValue& value) {
    const std::optional<std::uint32_t> number = DwordIn(value);
    return number ? fmt::format("0x{:x} ({})", *number, *number) : InLine(DataText(value, "\\0"));
}

std::string NameInLine(std::u16string_view name) {
    return name.empty() ? "(Default)" : InLine(platform::Utf8FromWide(name));
}

}  // namespace kv
