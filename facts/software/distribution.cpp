#include "facts/software/distribution.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <langinfo.h>
#include <locale.h>
#include <memory>
#include <unistd.h>

#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

struct Language {
    std::string_view locale;
    std::uint16_t number;
};

// clang-format off
constexpr Language languages[] = {
    {"C", 0x007F}, {"POSIX", 0x007F},
    {"ar_SA", 0x0401}, {"bg_BG", 0x0402}, {"ca_ES", 0x0403}, {"cs_CZ", 0x0405}, {"da_DK", 0x0406}, {"de_AT", 0x0C07},
    {"de_CH", 0x0807}, {"de_DE", 0x0407}, {"el_GR", 0x0408}, {"en_AU", 0x0C09}, {"en_CA", 0x1009}, {"en_GB", 0x0809},
    {"en_IE", 0x1809}, {"en_IN", 0x4009}, {"en_NZ", 0x1409}, {"en_US", 0x0409}, {"en_ZA", 0x1C09}, {"es_ES", 0x0C0A},
    {"es_MX", 0x080A}, {"et_EE", 0x0425}, {"fi_FI", 0x040B}, {"fr_BE", 0x080C}, {"fr_CA", 0x0C0C}, {"fr_CH", 0x100C},
    {"fr_FR", 0x040C}, {"he_IL", 0x040D}, {"hi_IN", 0x0439}, {"hr_HR", 0x041A}, {"hu_HU", 0x040E}, {"id_ID", 0x0421},
    {"is_IS", 0x040F}, {"it_CH", 0x0810}, {"it_IT", 0x0410}, {"ja_JP", 0x0411}, {"ko_KR", 0x0412}, {"lt_LT", 0x0427},
    {"lv_LV", 0x0426}, {"nb_NO", 0x0414}, {"nl_BE", 0x0813}, {"nl_NL", 0x0413}, {"nn_NO", 0x0814}, {"pl_PL", 0x0415},
    {"pt_BR", 0x0416}, {"pt_PT", 0x0816}, {"ro_RO", 0x0418}, {"ru_RU", 0x0419}, {"sk_SK", 0x041B}, {"sl_SI", 0x0424},
    {"sv_SE", 0x041D}, {"th_TH", 0x041E}, {"tr_TR", 0x041F}, {"uk_UA", 0x0422}, {"vi_VN", 0x042A}, {"zh_CN", 0x0804},
    {"zh_HK", 0x0C04}, {"zh_SG", 0x1004}, {"zh_TW", 0x0404},
};
// clang-format on

std::string WithoutShellQuotes(std::string_view quoted) {
    std::string text;
    char openQuote = '\0';
    for (std::size_t at = 0; at < quoted.size(); ++at) {
        const char character = quoted[at];
        if (openQuote == '\0' ? character == '"' || character == '\'' : character == openQuote) {
            openQuote = openQuote == '\0' ? character : '\0';
            continue;
        }
        if (character == '\\' && openQuote != '\'' && at + 1 < quoted.size()) ++at;
        text.push_back(quoted[at]);
    }
    return text;
}

/// "utf8" of "en_US.UTF-8@euro": in small letters, without hyphens.
std::string CodeSetOf(std::string_view localeName) {
    const std::size_t point = localeName.find('.');
    if (point == std::string_view::npos) return {};
    std::string codeSet;
    for (const char character : localeName.substr(point + 1, localeName.find('@') - point - 1)) {
        if (character != '-') codeSet.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(character))));
    }
    return codeSet;
}

}  // namespace

std::optional<std::string> AssignedValue(std::string_view text, std::string_view key) {
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        if (!line.starts_with(key) || line.substr(key.size(), 1) != "=") continue;
        std::string value = WithoutShellQuotes(line.substr(key.size() + 1));
        return value.empty() ? std::nullopt : std::optional(std::move(value));
    }
    return std::nullopt;
}

std::string ReadOsRelease() {
    std::optional<std::string> text = platform::ReadSystemFile("/etc/os-release");
    if (!text) text = platform::ReadSystemFile("/usr/lib/os-release");
    return text.value_or("");
}

std::string SystemNameOf(std::string_view osRelease, const utsname& kernel) {
    const std::string kernelName = fmt::format("{} {}", kernel.sysname, kernel.release);
    return AssignedValue(osRelease, "PRETTY_NAME").value_or(kernelName);
}

std::optional<std::string> ReadPrettyHostName() {
    return AssignedValue(platform::ReadSystemFile("/etc/machine-info").value_or(""), "PRETTY_HOSTNAME");
}

std::string ReadLocaleName() {
    for (const char* path : {"/etc/locale.conf", "/etc/default/locale"}) {
        const std::string text = platform::ReadSystemFile(path).value_or("");
        if (std::optional<std::string> name = AssignedValue(text, "LANG")) return *name;
    }
    return "C";
}

std::optional<std::uint16_t> LanguageNumberOf(std::string_view localeName) {
    const std::string_view name = localeName.substr(0, localeName.find_first_of(".@"));
    const auto* found = std::ranges::find(languages, name, &Language::locale);
    return found == std::end(languages) ? std::nullopt : std::optional(found->number);
}

std::optional<std::uint32_t> CodePageOf(std::string_view localeName) {
    constexpr std::string_view latin = "iso8859";
    constexpr std::uint32_t utf8 = 65001;
    constexpr std::uint32_t ascii = 20127;
    constexpr std::uint32_t beforeLatin1 = 28590;
    constexpr std::uint64_t lastLatin = 15;
    const std::string codeSet = CodeSetOf(localeName);
    if (codeSet == "utf8") return utf8;
    if (LanguageNumberOf(localeName) == LanguageNumberOf("C")) return ascii;
    if (!codeSet.starts_with(latin)) return std::nullopt;
    const std::optional<std::uint64_t> number = NumberOf(std::string_view(codeSet).substr(latin.size()));
    return number && *number <= lastLatin ? std::optional(beforeLatin1 + static_cast<std::uint32_t>(*number))
                                          : std::nullopt;
}

std::optional<std::string> ReadCountryCode(const std::string& localeName) {
    const std::unique_ptr<std::remove_pointer_t<locale_t>, platform::ReleasedBy<freelocale>> locale(
        newlocale(LC_TELEPHONE_MASK, localeName.c_str(), nullptr));
    const std::string_view code = locale ? nl_langinfo_l(_NL_TELEPHONE_INT_PREFIX, locale.get()) : "";
    return code.empty() ? std::nullopt : std::optional<std::string>(code);
}

bool IsWorkstation() {
    constexpr const char* displayManagers[] = {
        "/etc/systemd/system/display-manager.service",
        "/etc/X11/default-display-manager",
    };
    return std::ranges::any_of(displayManagers, [](const char* path) { return access(path, F_OK) == 0; });
}

}  // namespace kv::facts
