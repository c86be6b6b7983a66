#include "platform/messages.h"

#include "platform/utf.h"

namespace platform {

std::string MessageInLine(Error code) {
    const std::optional<std::u16string> text = Messages().FormatMessageW(code);
    if (!text) return {};
    std::string words = Utf8FromWide(*text);
    words.erase(words.find_last_not_of(" \r\n") + 1);
    return words;
}

}  // namespace platform
