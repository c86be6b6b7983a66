#include "collection/wmi_text.h"

#include <array>
#include <cstdio>
#include <fmt/format.h>

#include "foundation/log.h"
#include "foundation/text.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

std::u16string RealText(double number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%10.4f", number);
    return platform::WideFromUtf8(text.data());
}

std::u16string ByteText(std::uint8_t byte) {
    if (byte < 0x20) return DecimalText(byte);
    return {u'\'', byte, u'\''};
}

}  // namespace

std::u16string VariantToString(const platform::Variant& value) {
    using enum platform::VariantType;
    switch (value.type) {
        case null:
            return u"-";
        case i2:
            return DecimalText(static_cast<std::uint16_t>(value.integer));
        case i4:
            return DecimalText(value.integer);
        case r4:
            return RealText(static_cast<double>(static_cast<float>(value.real)));
        case r8:
            return RealText(value.real);
        case bstr:
            return value.text;
        case boolean:
            return value.integer == 0 ? u"False" : u"True";
        case ui1:
            return ByteText(static_cast<std::uint8_t>(value.integer));
        default:
            return u"<conversion error>";
    }
}

std::u16string WmiStatusText(platform::WmiStatus code) {
    const platform::MessageOperations& messages = platform::Messages();
    if (auto text = messages.FormatMessageW(code)) return *text;
    platform::ModuleHandle module = 0;
    if (const platform::Error error = messages.LoadLibraryW(u"wmiutils.dll", module)) {
        Log1("\t FormatWMIError :: wmiutils.dll cannot be loaded [%d]\n", error);
        return {};
    }
    return messages.FormatModuleMessageW(module, code).value_or(u"");
}

std::u16string FormatWMIError(platform::WmiStatus code, std::u16string_view text) {
    Log3("\t Inside FormatWMIError() \n");
    std::u16string formatted = u"FAILED:";
    formatted += text;
    formatted += u" ERRORCODE:" + platform::WideFromUtf8(fmt::format("{:x}", code));
    formatted += u" MESSAGE:" + WmiStatusText(code);
    Log1("\tFormatted errorMess :: %s", formatted);
    return formatted;
}

}  // namespace kv
