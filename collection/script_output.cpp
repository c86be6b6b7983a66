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

}  // namespace

void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16) {
    const bool isUtf8 = converter.encoding == platform::ScriptOutputEncoding::utf8;
    std::string bytes = std::exchange(converter.pending, {});
    bytes += block;
    const std::size_t whole = bytes.size() - (isUtf8 ? CutUtf8Bytes(bytes) : bytes.size() % 2);
    converter.pending = bytes.substr(whole);
    bytes.resize(whole);
    Append(converter, isUtf8 ? platform::WideFromUtf8(bytes) : TextFromUtf16LittleEndian(bytes), utf16);
}

void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16) {
    if (!std::exchange(converter.pending, {}).empty()) Append(converter, std::u16string_view(&replacement, 1), utf16);
}

}  // namespace kv
