// Where the agent's paths and names end up on this system.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cwctype>
#include <filesystem>
#include <locale.h>

#include "platform/linux/linux.h"
#include "platform/name_pattern.h"
#include "platform/utf.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

std::string stateDirectory = usualStateDirectory;

bool BeginsWithDrive(const std::string& path) {
    return path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0])) != 0;
}

}  // namespace

const std::string& StateDirectory() { return stateDirectory; }

void ReadStateDirectory() {
    const char* configured = std::getenv(stateDirectoryVariable);
    const fs::path named = configured != nullptr && *configured != '\0' ? configured : usualStateDirectory;
    std::error_code unknownWorkingDirectory;
    const fs::path absolute = fs::absolute(named, unknownWorkingDirectory);
    stateDirectory = (unknownWorkingDirectory ? named : absolute).lexically_normal().string();
    if (stateDirectory.size() > 1 && stateDirectory.back() == '/') stateDirectory.pop_back();
}

std::string NativePathOf(std::u16string_view path) {
    std::string native;
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find(u'\0', start), path.size());
        if (start > 0) native += "\uFFFD";
        native += Utf8FromWide(path.substr(start, end - start));
        start = end + 1;
    }
    std::replace(native.begin(), native.end(), '\\', '/');
    if (native.starts_with('/')) return fs::path(native).lexically_normal().string();
    if (!BeginsWithDrive(native)) return native;
    const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(native[0])));
    const fs::path belowRoot = fs::path("/" + native.substr(2)).lexically_normal();
    return stateDirectory + "/drive_" + letter + belowRoot.string();
}

char16_t UpperCaseOf(char16_t character) {
    if (character < 0x80)
        return character >= u'a' && character <= u'z' ? static_cast<char16_t>(character - 32) : character;
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (unicode == nullptr) return character;
    return static_cast<char16_t>(towupper_l(static_cast<wint_t>(character), unicode));
}

}  // namespace platform
