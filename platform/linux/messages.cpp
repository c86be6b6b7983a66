#include "platform/linux/linux.h"
#include "platform/utf.h"
#include "platform/wmi_status.h"

namespace platform {

namespace {

/// The only library: WMI's texts are this program's own.
constexpr ModuleHandle wmiTexts = 1;
constexpr std::u16string_view wmiTextsName = u"wmiutils.dll";

std::optional<std::u16string> FormatMessageW(Error code) {
    switch (code) {
#define KV_GIVE_TEXT(name, number, text) \
    case number:                         \
        return WideFromUtf8(text);
        KV_SYSTEM_ERRORS(KV_GIVE_TEXT)
#undef KV_GIVE_TEXT
        default:
            return std::nullopt;
    }
}

Error LoadLibraryW(std::u16string_view name, ModuleHandle& module) {
    if (name != wmiTextsName) return error::fileNotFound;
    module = wmiTexts;
    return error::success;
}

std::optional<std::u16string> FormatModuleMessageW(ModuleHandle module, Error code) {
    if (module != wmiTexts) return std::nullopt;
    switch (code) {
#define KV_GIVE_LINE(name, number, text) \
    case number:                         \
        return WideFromUtf8(text "\r\n");
        KV_WMI_STATUSES(KV_GIVE_LINE)
#undef KV_GIVE_LINE
        default:
            return FormatMessageW(code);
    }
}

}  // namespace

MessageOperations LinuxMessages() {
    return {
        .FormatMessageW = FormatMessageW, .LoadLibraryW = LoadLibraryW, .FormatModuleMessageW = FormatModuleMessageW};
}

}  // namespace platform
