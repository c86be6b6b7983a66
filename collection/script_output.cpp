#include "collection/script_output.h"

#include <algorithm>
#include <utility>

#include "foundation/file_utils.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr char16_t byteOrderMark = 0xFEFF;
constexpr char16_t replacement = 0xFFFD;

/// Bytes of the UTF-8 sequence that a byte leads; 0 for a byte that leads none, 1 for a character by itself.
std::size_t SequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xF0) return lead <= 0xF4 ? 4 : 0;
    if (lead >= 0xE0) return 3;
    return lead >= 0xC2 ? 2 : 0;
}

/// How many bytes at the end belong to a UTF-8 sequence that more bytes may complete.
std::size_t CutUtf8Bytes(std::string_view bytes) {
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, bytes.size()); ++back) {
        const auto byte = static_cast<unsigned char>(bytes[bytes.size() - back]);
        if ((byte & 0xC0) != 0x80) return SequenceLength(byte) > back ? back : 0;
    }
    return 0;
}

void Append(ScriptOutputConverter& converter, std::u16string_view text, std::string& utf16) {
    if (text.empty()) return;
    if (std::exchange(converter.atStart, false) && text.front() == byteOrderMark) text.remove_prefix(1);
    utf16 += Utf16LittleEndianBytes(text);
}

/// Output is ASCII for the most part, and each such byte is a unit's low half as it stands.
void AppendAscii(ScriptOutputConverter& converter, std::string_view ascii, std::string& utf16) {
    if (ascii.empty()) return;
    converter.atStart = false;
    const std::size_t start = utf16.size();
    utf16.resize(start + 2 * ascii.size());
    char* low = utf16.data() + start;
    for (const char character : ascii) {
        *low = character;
        low += 2;
    }
}

/// Length of the run at the start of a text whose bytes are all ASCII, or all are not.
std::size_t RunLength(std::string_view text, bool ascii) {
    const char* const end = text.data() + text.size();
    const char* at = text.data();
    while (at != end && (static_cast<unsigned char>(*at) < 0x80) == ascii) ++at;
    return static_cast<std::size_t>(at - text.data());
}

void AppendUtf8(ScriptOutputConverter& converter, std::string_view utf8, std::string& utf16) {
    while (!utf8.empty()) {
        const std::size_t ascii = RunLength(utf8, true);
        AppendAscii(converter, utf8.substr(0, ascii), utf16);
        utf8.remove_prefix(ascii);
        const std::size_t others = RunLength(utf8, false);
        Append(converter, platform::WideFromUtf8(utf8.substr(0, others)), utf16);
        utf8.remove_prefix(others);
    }
}

}  // namespace

void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16) {
    const bool isUtf8 = converter.encoding == platform::ScriptOutputEncoding::utf8;
    std::string bytes = std::exchange(converter.pending, {});
    bytes += block;
    const std::size_t whole = bytes.size() - (isUtf8 ? CutUtf8Bytes(bytes) : bytes.size() % 2);
    converter.pending = bytes.substr(whole);
    bytes.resize(whole);
    if (isUtf8) {
        AppendUtf8(converter, bytes, utf16);
    } else {
        Append(converter, TextFromUtf16LittleEndian(bytes), utf16);
    }
}

void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16) {
    if (!std::exchange(converter.pending, {}).empty()) Append(converter, std::u16string_view(&replacement, 1), utf16);
}

}  // namespace kv
