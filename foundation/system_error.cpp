#include "foundation/system_error.h"

#include <algorithm>
#include <array>
#include <optional>

#include "foundation/log.h"
#include "foundation/text.h"
#include "platform/messages.h"

namespace kv {

namespace {

struct UpdateErrorText {
    platform::Error code;
    const char16_t* text;
};

constexpr std::array updateErrorTexts = {
    UpdateErrorText{17021, u"OfficeUpdateError: Creating temp folder."},
    UpdateErrorText{17023, u"OfficeUpdateError: User cancelled installation."},
    UpdateErrorText{17024, u"OfficeUpdateError: Creating folder failed."},
    UpdateErrorText{17025, u"OfficeUpdateError: Patch already installed."},
    UpdateErrorText{17026, u"OfficeUpdateError: Patch already installed to admin installation."},
    UpdateErrorText{17027, u"OfficeUpdateError: Installation source requires full file update."},
    UpdateErrorText{17028, u"OfficeUpdateError: No product installed for contained patch."},
    UpdateErrorText{17029, u"OfficeUpdateError: Patch failed to install."},
    UpdateErrorText{17030, u"OfficeUpdateError: Invalid CIF format."},
    UpdateErrorText{17031, u"OfficeUpdateError: Invalid baseline."},
    UpdateErrorText{17034, u"OfficeUpdateError: Required patch does not apply to the machine."},
    UpdateErrorText{17301, u"OfficeUpdateError: General Detection error"},
    UpdateErrorText{17302, u"OfficeUpdateError: Applying patch."},
    UpdateErrorText{17303, u"OfficeUpdateError: Extracting file."},
};

}  // namespace

std::u16string LogSystemError(platform::Error code) {
    std::optional<std::u16string> systemText = platform::Messages().FormatMessageW(code);
    std::u16string text = systemText ? std::move(*systemText) : OfficeUpdateError(code);
    Log1("\t Error code : %d, Error Message : %s\n", code, text);
    return text;
}

void LogLastSystemError(platform::Error code) { LogSystemError(code); }

std::u16string OfficeUpdateError(platform::Error code) {
    Log4("\t Inside OfficeUpdateError() \n");
    const auto known = std::find_if(updateErrorTexts.begin(), updateErrorTexts.end(),
                                    [code](const UpdateErrorText& entry) { return entry.code == code; });
    if (known != updateErrorTexts.end()) return known->text;
    return u"Unknown Error. Code : " + DecimalText(static_cast<std::int32_t>(code));
}

}  // namespace kv
