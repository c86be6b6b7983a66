#include "collection/script_output.h"

#include <algorithm>
#include <utility>

#include "foundation/file_utils.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr char16_t byteOrderMark = 0xFEFF;
constexpr char16_t replacement = 0xFFFD;

/// So many bytes at the start tell 16-bit output.
constexpr std::size_t signatureSize = 4;

/// A line that is longer is converted in pieces.
constexpr std::size_t longestLine = 64 * 1024;

/// Bytes of the UTF-8 sequence that a byte begins: 1 for a character by itself, 0 when no sequence begins so.
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

/// A line is in one encoding, but tools with different ones may print into one output.
void AppendLines(ScriptOutputConverter& converter, std::string_view bytes, std::string& utf16) {
    if (platform::IsValidUtf8(bytes)) return AppendUtf8(converter, bytes, utf16);
    while (!bytes.empty()) {
        const std::string_view line = bytes.substr(0, std::min(bytes.find('\n'), bytes.size() - 1) + 1);
        if (platform::IsValidUtf8(line)) {
            AppendUtf8(converter, line, utf16);
        } else {
            Append(converter, platform::Processes().WideFromConsoleBytes(line), utf16);
        }
        bytes.remove_prefix(line.size());
    }
}

bool BeginsAsUtf16(std::string_view bytes) {
    if (bytes.starts_with("\xFF\xFE")) return true;
    return bytes.size() >= signatureSize && bytes[0] != 0 && bytes[1] == 0 && bytes[2] != 0 && bytes[3] == 0;
}

/// How many bytes can be converted before more have come: whole lines, or of a long one what ends behind a character
/// that is not a part of another in any code page.
std::size_t WholeLines(std::string_view bytes) {
    const std::size_t lines = bytes.rfind('\n') + 1;  // 0 without any
    if (bytes.size() - lines <= longestLine) return lines;
    const std::size_t piece = bytes.find_last_of(" ,\"") + 1;
    return bytes.size() - piece <= longestLine ? piece : bytes.size() - CutUtf8Bytes(bytes);
}

}  // namespace

void FeedScriptOutput(ScriptOutputConverter& converter, std::string_view block, std::string& utf16) {
    std::string bytes = std::exchange(converter.pending, {});
    bytes += block;
    if (!converter.isBegun && bytes.size() >= signatureSize) {
        converter.isBegun = true;
        if (BeginsAsUtf16(bytes)) converter.encoding = platform::ScriptOutputEncoding::utf16LittleEndian;
    }
    const bool isUtf16 = converter.encoding == platform::ScriptOutputEncoding::utf16LittleEndian;
    std::size_t whole = 0;
    if (converter.isBegun) whole = isUtf16 ? bytes.size() / 2 * 2 : WholeLines(bytes);
    converter.pending = bytes.substr(whole);
    bytes.resize(whole);
    if (isUtf16) {
        Append(converter, TextFromUtf16LittleEndian(bytes), utf16);
    } else {
        AppendLines(converter, bytes, utf16);
    }
}

void FinishScriptOutput(ScriptOutputConverter& converter, std::string& utf16) {
    const std::string rest = std::exchange(converter.pending, {});
    const bool isUtf8 = converter.encoding == platform::ScriptOutputEncoding::utf8;
    if (isUtf8 && (converter.isBegun || !BeginsAsUtf16(rest))) return AppendLines(converter, rest, utf16);
    Append(converter, TextFromUtf16LittleEndian(rest), utf16);
    if (rest.size() % 2 != 0) Append(converter, std::u16string_view(&replacement, 1), utf16);
}

}  // namespace kv
